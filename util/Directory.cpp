// CDirectory::RemoveDir: deletes the visible files and subdirectories of a
// directory tree and, on request, the directory itself.
//
// The result rules are the ones the product's clean-up has always had and
// its setup result depends on them: the final rmdir of a directory is judged
// in reverse (success gives 0), so a subdirectory that was removed completely
// stops its caller, while a directory that could not be removed (e.g. it
// still holds hidden files, which are never touched) counts as success.
//
// Links: the removal runs as root, so it never follows a symbolic link found
// inside the tree. Every entry is examined with lstat (relative to its
// directory's descriptor), a link of any kind, to a file, to a directory or
// dangling, is deleted as a link with the file lines ("Found file", "Remove
// file ... OK!"), and what it points to is never touched: a link to another
// directory, or to "/", must not make the clean-up empty that directory.
// Subdirectories are opened with O_NOFOLLOW relative to their parent, so an
// entry swapped for a link after its lstat is not entered either. Only the
// top-level path is resolved as given, links included: an administrator may
// have moved the data directory elsewhere and left a link in its place.
#include "util/Directory.h"

#include "frame/Trace.h"
#include "util/FileStatus.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Owns a directory descriptor.
class CDirectoryFd {
 public:
  explicit CDirectoryFd(int fd) : m_Fd(fd) {}
  ~CDirectoryFd() {
    if (m_Fd >= 0) close(m_Fd);
  }
  CDirectoryFd(const CDirectoryFd&) = delete;
  CDirectoryFd& operator=(const CDirectoryFd&) = delete;
  int Get() const { return m_Fd; }

 private:
  int m_Fd;
};

// Owns a scandir listing: every entry and the list itself.
class CListing {
 public:
  CListing() = default;
  ~CListing() {
    for (int i = 0; i < m_Count; ++i) std::free(m_pEntries[i]);
    std::free(m_pEntries);
  }
  CListing(const CListing&) = delete;
  CListing& operator=(const CListing&) = delete;

  // Lists the directory open as directoryFd, sorted with alphasort.
  int Scan(int directoryFd) {
    m_Count = scandirat(directoryFd, ".", &m_pEntries, nullptr, alphasort);
    if (m_Count < 0) {
      m_pEntries = nullptr;
      m_Count = 0;
      return -1;
    }
    return m_Count;
  }
  int Count() const { return m_Count; }
  const char* Name(int i) const { return m_pEntries[i]->d_name; }

 private:
  struct dirent** m_pEntries = nullptr;
  int m_Count = 0;
};

// The trace may itself change errno; every error text is taken from the
// errno of the system call it reports, saved right after that call.
const char* ErrorText(int error) { return std::strerror(error); }

// One directory of the tree: parentFd and name locate it (AT_FDCWD and the
// path as given for the top level), path is its name in the traces.
struct CTreeDirectory {
  int m_ParentFd;
  const char* m_Name;
  const std::string& m_Path;
  bool m_TopLevel;
};

int RemoveTree(const CTreeDirectory& directory, int removeParent);

// Deletes one regular file or link; 1 done, 0 failed (errno set).
int RemoveFileEntry(int directoryFd, const char* name, const std::string& entryPath) {
  KORVEX_TRACE(2, "\nCDirectory          : Found file: \"%s\"", entryPath.c_str());
  if (unlinkat(directoryFd, name, 0) == 0) {
    KORVEX_TRACE(3, "\nCDirectory          : Remove file \"%s\" OK!", entryPath.c_str());
    return 1;
  }
  const int error = errno;
  KORVEX_TRACE(1, "\nCDirectory          : ERROR cannot remove file \"%s\": %s\n",
               entryPath.c_str(), ErrorText(error));
  errno = error;
  return 0;
}

// Removes one subdirectory with its parent flag set; 1: the caller goes on,
// 0: the caller stops (errno set). Mind the reversed result of RemoveTree.
int RemoveDirectoryEntry(int directoryFd, const char* name, const std::string& entryPath) {
  KORVEX_TRACE(2, "\nCDirectory          : Found dir: \"%s\"", entryPath.c_str());
  const int removed = RemoveTree({directoryFd, name, entryPath, false}, 1);
  const int error = errno;
  if (removed == 0) {
    KORVEX_TRACE(1, "\nCDirectory          : ERROR cannot remove directory \"%s\": %s\n",
                 entryPath.c_str(), ErrorText(error));
  } else {
    KORVEX_TRACE(3, "\nCDirectory          : Remove directory \"%s\" OK!", entryPath.c_str());
  }
  errno = error;
  return removed;
}

// Visits the listed entries in order; 1 when all were dealt with, 0 when one
// stopped the loop. errno: the error of the last call that decided.
int RemoveEntries(int directoryFd, const CListing& listing, const std::string& base) {
  int lastError = 0;
  for (int i = 0; i < listing.Count(); ++i) {
    const char* const name = listing.Name(i);
    // ".", ".." and every hidden entry stay where they are.
    if (name[0] == '.') continue;

    const std::string entryPath = base + name;
    struct stat status;
    if (korvex::LinkStatusAt(directoryFd, name, status) != 0) continue;

    int goOn = 1;
    if (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode)) {
      goOn = RemoveFileEntry(directoryFd, name, entryPath);
    } else if (S_ISDIR(status.st_mode)) {
      goOn = RemoveDirectoryEntry(directoryFd, name, entryPath);
    } else {
      continue;  // devices, sockets and pipes are left alone
    }
    lastError = errno;
    if (goOn == 0) {
      errno = lastError;
      return 0;
    }
  }
  errno = lastError;
  return 1;
}

// The final rmdir of a directory, judged in reverse on purpose (see the top
// of this file). errno: that of the rmdir.
int RemoveEmptiedDirectory(const CTreeDirectory& directory, const std::string& base) {
  KORVEX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\"", base.c_str());
  // The top level is removed by its path as given; a subdirectory by its
  // name in its parent, which removes a directory and never a link.
  const char* const name = directory.m_TopLevel ? base.c_str() : directory.m_Name;
  errno = 0;
  const int removed = unlinkat(directory.m_ParentFd, name, AT_REMOVEDIR);
  const int error = errno;
  int result = 1;
  if (removed < 0) {
    KORVEX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\" OK!", base.c_str());
  } else {
    KORVEX_TRACE(1, "\nCDirectory          : ERROR cannot remove parent directory \"%s\": %s\n",
                 base.c_str(), ErrorText(error));
    result = 0;
  }
  errno = error;
  return result;
}

int RemoveTree(const CTreeDirectory& directory, int removeParent) {
  KORVEX_TRACE(2, "\nCDirectory          : Remove directory \"%s\"", directory.m_Path.c_str());
  const std::string base = directory.m_Path + "/";
  // The entry path is still empty when the listing fails; the line shows it
  // rather than the directory, in the form the host's trace readers know.
  const std::string entryPath;

  const int noFollow = directory.m_TopLevel ? 0 : O_NOFOLLOW;
  CDirectoryFd fd(openat(directory.m_ParentFd, directory.m_Name,
                         O_RDONLY | O_DIRECTORY | O_CLOEXEC | noFollow));
  CListing listing;
  if (fd.Get() < 0 || listing.Scan(fd.Get()) < 0) {
    const int error = errno;
    KORVEX_TRACE(3, "\nCDirectory          : scandir for directory \"%s\" failed; ## ERROR: %s\n",
                 entryPath.c_str(), ErrorText(error));
    errno = error;
    return 0;
  }

  const int result = RemoveEntries(fd.Get(), listing, base);
  if (result == 1 && removeParent != 0) return RemoveEmptiedDirectory(directory, base);
  return result;
}

}  // namespace

int CDirectory::RemoveDir(const char* path, int removeParent) {
  if (path == nullptr || path[0] == '\0') {
    KORVEX_TRACE(2, "\nCDirectory          : Remove directory \"%s\"",
                 path != nullptr ? path : "(null)");
    return 0;
  }
  const std::string topLevel(path);
  return RemoveTree({AT_FDCWD, path, topLevel, true}, removeParent);
}
