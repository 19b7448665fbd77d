// serve's output stream, which never blocks em-host on a stalled reader.
#include "host/emhost/serve/EventOutput.h"

#include "util/Waiter.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

ssize_t CookieWrite(void* cookie, const char* data, size_t size) {
  return static_cast<ssize_t>(static_cast<CEventOutput*>(cookie)->Write(data, size));
}

}  // namespace

CEventOutput::CEventOutput(int fd, int signalFd) : m_Fd(fd), m_SignalFd(signalFd) {
  struct stat status {};
  if (::fstat(fd, &status) == 0) {
    // send() takes MSG_DONTWAIT per call. A regular file never stalls and
    // is written as it is (opening it anew would lose O_APPEND).
    m_Socket = S_ISSOCK(status.st_mode);
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) OpenNonBlockingCopy(fd);
  }
  cookie_io_functions_t functions{};
  functions.write = CookieWrite;
  m_Stream = ::fopencookie(this, "w", functions);
}

CEventOutput::~CEventOutput() {
  if (m_Stream != nullptr) std::fclose(m_Stream);
}

void CEventOutput::OpenNonBlockingCopy(int fd) {
  // Setting O_NONBLOCK on the inherited descriptor would change it for the
  // shell and every other process that shares it.
  const std::string self = "/proc/self/fd/" + std::to_string(fd);
  m_Copy.Reset(::open(self.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (m_Copy) m_Fd = m_Copy.Get();
}

long CEventOutput::WriteSome(const char* data, unsigned long size) {
  return m_Socket ? ::send(m_Fd, data, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                  : ::write(m_Fd, data, size);
}

bool CEventOutput::WaitForRoom() {
  const korvex::CWaiter waiter(m_Fd, m_SignalFd, POLLOUT);
  return waiter.Wait() == korvex::CWaiter::Woken::kWake;
}

long CEventOutput::Write(const char* data, unsigned long size) {
  unsigned long done = 0;
  while (done < size) {
    const long written = KORVEX_RETRY(WriteSome(data + done, size - done));
    if (written > 0) {
      done += static_cast<unsigned long>(written);
      continue;
    }
    if (written < 0 && errno != EAGAIN) return -1;  // EPIPE: the reader has gone
    // A signal waits: the output is given up, as if the reader had gone.
    if (!WaitForRoom()) return -1;
  }
  return static_cast<long>(size);
}
