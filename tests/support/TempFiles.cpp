// Scratch directories and whole-file helpers shared by the test suites and
// the benchmarks.
#include "tests/support/TempFiles.h"

#include "util/Fd.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvex_test {

namespace {

std::string TempBase(const std::string& base) {
  if (!base.empty()) return base;
  const char* fromEnvironment = std::getenv("TMPDIR");
  return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : "/tmp";
}

std::runtime_error Failure(const std::string& what, const std::string& path) {
  return std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

// The names in the directory dirFd, without "." and "..".
std::set<std::string> EntriesAt(int dirFd) {
  std::set<std::string> names;
  const int own = ::fcntl(dirFd, F_DUPFD_CLOEXEC, 0);
  DIR* listing = own >= 0 ? ::fdopendir(own) : nullptr;
  if (listing == nullptr) {
    if (own >= 0) ::close(own);
    return names;
  }
  while (const dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  ::closedir(listing);
  return names;
}

// Removes name below the directory parentFd; a directory is opened with
// O_NOFOLLOW and emptied through its own descriptor, so that a link swapped
// in meanwhile is removed, never followed.
void RemoveEntry(int parentFd, const std::string& name) {
  struct stat info {};
  if (::fstatat(parentFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (!S_ISDIR(info.st_mode)) {
    ::unlinkat(parentFd, name.c_str(), 0);
    return;
  }
  const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  korvex::CFd dir(KORVEX_RETRY(::openat(parentFd, name.c_str(), flags)));
  if (!dir) return;
  ::fchmod(dir.Get(), 0755);  // a directory a test made read-only
  for (const std::string& entry : EntriesAt(dir.Get())) RemoveEntry(dir.Get(), entry);
  ::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR);
}

}  // namespace

CTempDir::CTempDir(const std::string& prefix, const std::string& base) {
  std::string pattern = TempBase(base) + "/" + prefix + ".XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw Failure("mkdtemp", pattern);
  m_Path = pattern;
}

CTempDir::~CTempDir() {
  for (auto mount = m_Mounts.rbegin(); mount != m_Mounts.rend(); ++mount) {
    ::umount2(mount->c_str(), MNT_DETACH);
  }
  RemoveTree(m_Path);
}

std::string CTempDir::Sub(const std::string& relative) const {
  std::string path = m_Path;
  std::size_t start = 0;
  while (start <= relative.size()) {
    const std::size_t slash = relative.find('/', start);
    const std::size_t end = slash == std::string::npos ? relative.size() : slash;
    if (end > start) {
      path += "/" + relative.substr(start, end - start);
      ::mkdir(path.c_str(), 0755);
    }
    start = end + 1;
  }
  return path;
}

void WriteFile(const std::string& path, const std::string& content, mode_t mode) {
  korvex::CFd fd(
      KORVEX_RETRY(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode)));
  if (!fd) throw Failure("cannot open", path);
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t written =
        KORVEX_RETRY(::write(fd.Get(), content.data() + done, content.size() - done));
    if (written <= 0) throw Failure("cannot write", path);
    done += static_cast<std::size_t>(written);
  }
  if (::fchmod(fd.Get(), mode) != 0) throw Failure("cannot chmod", path);
}

void WriteScript(const std::string& path, const std::string& body) {
  const std::string temporary = path + ".new";
  WriteFile(temporary, "#!/bin/sh\n" + body + "\n", 0755);
  if (::rename(temporary.c_str(), path.c_str()) != 0) throw Failure("cannot rename to", path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

std::set<std::string> Entries(const std::string& dir) {
  korvex::CFd fd(KORVEX_RETRY(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  return fd ? EntriesAt(fd.Get()) : std::set<std::string>();
}

void RemoveTree(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  korvex::CFd parentFd(KORVEX_RETRY(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (parentFd && !name.empty()) RemoveEntry(parentFd.Get(), name);
}

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

}  // namespace korvex_test
