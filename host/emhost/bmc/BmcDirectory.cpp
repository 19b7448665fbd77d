// The BMC directory held open: creation, renaming and removal of its
// entries relative to the one descriptor.
#include "host/emhost/bmc/BmcDirectory.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

namespace {

// Attempts at a fresh random name before giving up (EEXIST every time means
// something fills the directory with our names on purpose).
constexpr int kTempAttempts = 16;

std::string RandomSuffix() {
  unsigned char bytes[6] = {};
  if (::getrandom(bytes, sizeof(bytes), GRND_NONBLOCK) != static_cast<ssize_t>(sizeof(bytes))) {
    // No entropy yet (very early boot): the time and pid still make a name
    // that O_EXCL refuses to reuse.
    const unsigned long long mix =
        static_cast<unsigned long long>(::getpid()) * 0x9E3779B97F4A7C15ull ^
        static_cast<unsigned long long>(::time(nullptr));
    std::memcpy(bytes, &mix, sizeof(bytes));
  }
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string suffix;
  for (const unsigned char byte : bytes) suffix.push_back(kAlphabet[byte & 63u]);
  return suffix;
}

}  // namespace

CBmcDirectory::CBmcDirectory(std::string path) : m_Path(std::move(path)) {
  m_Fd.Reset(KORVEX_RETRY(::open(m_Path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (!m_Fd.Valid()) m_Error = m_Path + ": " + std::strerror(errno);
}

int CBmcDirectory::CreateTemp(const std::string& base, std::string& name) const {
  if (!Valid()) {
    errno = EBADF;
    return -1;
  }
  for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
    name = "." + base + "." + RandomSuffix();
    const int fd = KORVEX_RETRY(::openat(m_Fd.Get(), name.c_str(),
                                         O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  name.clear();
  return -1;
}

bool CBmcDirectory::Rename(const std::string& from, const std::string& to) const {
  return ::renameat(m_Fd.Get(), from.c_str(), m_Fd.Get(), to.c_str()) == 0;
}

bool CBmcDirectory::Replace(const std::string& from, const std::string& to, bool& replaced) const {
  replaced = false;
  if (::renameat2(m_Fd.Get(), from.c_str(), m_Fd.Get(), to.c_str(), RENAME_NOREPLACE) == 0) {
    return true;
  }
  if (errno == EEXIST) {
    replaced = true;
  } else if (errno == EINVAL || errno == ENOSYS) {
    // A file system without RENAME_NOREPLACE: a look just before the rename
    // is the best there is.
    struct stat info {};
    replaced = ::fstatat(m_Fd.Get(), to.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0;
  } else {
    return false;
  }
  return Rename(from, to);
}

void CBmcDirectory::Remove(const std::string& name) const {
  if (Valid()) ::unlinkat(m_Fd.Get(), name.c_str(), 0);
}

bool CBmcDirectory::Sync() const { return Valid() && KORVEX_RETRY(::fsync(m_Fd.Get())) == 0; }

bool CBmcDirectory::FreeBytes(std::uint64_t& bytes) const {
  struct statvfs space {};
  if (!Valid() || ::fstatvfs(m_Fd.Get(), &space) != 0) return false;
  bytes = static_cast<std::uint64_t>(space.f_bavail) * static_cast<std::uint64_t>(space.f_frsize);
  return true;
}
