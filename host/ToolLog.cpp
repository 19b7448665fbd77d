// CToolLogCopy: see ToolLog.h for when the log is moved aside.
#include "host/ToolLog.h"

#include "util/Fd.h"

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace halvane {

CToolLogCopy::CToolLogCopy(int fd, int dirFd, const char* name, const char* oldName,
                           std::size_t halfBytes, std::size_t size) noexcept
    : m_Fd(fd), m_DirFd(dirFd), m_Name(name), m_OldName(oldName), m_Half(halfBytes), m_Size(size) {}

CToolLogCopy::~CToolLogCopy() {
  if (m_Fd >= 0) ::close(m_Fd);
}

bool CToolLogCopy::Due() const noexcept {
  return m_Half != 0 && m_DirFd >= 0 && m_Fd >= 0 && m_Size >= m_Half;
}

void CToolLogCopy::Append(const char* data, std::size_t length) noexcept {
  if (length == 0 || m_Fd < 0) return;
  // A full disk loses output, nothing more: the tool goes on.
  korvex::WriteAll(m_Fd, data, length);
  m_Size += length;
  m_AtLineStart = data[length - 1] == '\n';
}

void CToolLogCopy::MoveAside() noexcept {
  // When the log cannot be moved aside it simply grows; the next write
  // tries again.
  if (::renameat(m_DirFd, m_Name, m_DirFd, m_OldName) != 0) return;
  // The new log is a file of our own making: whatever took the name since
  // the rename (in a directory others may write) is removed, never opened.
  ::unlinkat(m_DirFd, m_Name, 0);
  const int fresh = ::openat(m_DirFd, m_Name,
                             O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0640);
  ::close(m_Fd);
  m_Fd = fresh;
  m_Size = 0;
  m_AtLineStart = true;
}

void CToolLogCopy::Write(const char* data, std::size_t length) noexcept {
  if (length == 0) return;
  if (!Due()) {
    Append(data, length);
    return;
  }
  // What still belongs to the old file: the rest of the line it ends in.
  std::size_t head = 0;
  if (!m_AtLineStart) {
    const void* end = std::memchr(data, '\n', length);
    if (end != nullptr) {
      head = static_cast<std::size_t>(static_cast<const char*>(end) - data) + 1;
    } else if (m_Size < 2 * m_Half) {
      head = length;
    }
  }
  Append(data, head);
  if (head == length) return;  // moved aside with the next output, not before
  MoveAside();
  Append(data + head, length - head);
}

}  // namespace halvane
