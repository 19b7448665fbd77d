// CDirectory::RemoveDir: deletes the visible files and subdirectories of a
// directory tree and, on request, the directory itself.
//
// The result rules are the ones the product's clean-up has always had and
// its setup result depends on them: the final rmdir of a directory is judged
// in reverse (success gives 0), so a subdirectory that was removed completely
// stops its caller, while a directory that could not be removed (e.g. it
// still holds hidden files, which are never touched) counts as success.
#include "util/Directory.h"

#include "frame/Trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

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

  int Scan(const char* path) {
    m_Count = scandir(path, &m_pEntries, nullptr, alphasort);
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

}  // namespace

int CDirectory::RemoveDir(const char* path, int removeParent) {
  KORVEX_TRACE(2, "\nCDirectory          : Remove directory \"%s\"",
               path != nullptr ? path : "(null)");
  if (path == nullptr || path[0] == '\0') return 0;

  // Error of the last system call that decided the outcome; handed back in
  // errno so that a caller reporting this call's failure shows its reason.
  int lastError = 0;
  const std::string base = std::string(path) + "/";
  std::string entryPath;

  CListing listing;
  if (listing.Scan(path) < 0) {
    lastError = errno;
    // The line names the entry path, which is still empty here, not the
    // directory; the host's trace readers know the line in this form.
    KORVEX_TRACE(3, "\nCDirectory          : scandir for directory \"%s\" failed; ## ERROR: %s\n",
                 entryPath.c_str(), ErrorText(lastError));
    errno = lastError;
    return 0;
  }

  int result = 1;
  for (int i = 0; i < listing.Count(); ++i) {
    const char* const name = listing.Name(i);
    // ".", ".." and every hidden entry stay where they are.
    if (name[0] == '.') continue;

    entryPath = base + name;
    struct stat status;
    if (stat(entryPath.c_str(), &status) != 0) continue;

    if (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode)) {
      KORVEX_TRACE(2, "\nCDirectory          : Found file: \"%s\"", entryPath.c_str());
      if (unlink(entryPath.c_str()) == 0) {
        KORVEX_TRACE(3, "\nCDirectory          : Remove file \"%s\" OK!", entryPath.c_str());
        continue;
      }
      lastError = errno;
      KORVEX_TRACE(1, "\nCDirectory          : ERROR cannot remove file \"%s\": %s\n",
                   entryPath.c_str(), ErrorText(lastError));
      errno = lastError;
      return 0;
    }

    if (S_ISDIR(status.st_mode)) {
      KORVEX_TRACE(2, "\nCDirectory          : Found dir: \"%s\"", entryPath.c_str());
      if (RemoveDir(entryPath.c_str(), 1) == 0) {
        lastError = errno;
        KORVEX_TRACE(1, "\nCDirectory          : ERROR cannot remove directory \"%s\": %s\n",
                     entryPath.c_str(), ErrorText(lastError));
        result = 0;
        break;
      }
      lastError = errno;
      KORVEX_TRACE(3, "\nCDirectory          : Remove directory \"%s\" OK!", entryPath.c_str());
      continue;
    }
    // Devices, sockets and pipes are left alone.
  }

  if (result == 1 && removeParent != 0) {
    KORVEX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\"", base.c_str());
    errno = 0;
    const int removed = rmdir(base.c_str());
    lastError = errno;
    if (removed < 0) {
      // Judged in reverse on purpose (see the top of this file).
      KORVEX_TRACE(3, "\nCDirectory          : Remove directory parent \"%s\" OK!", base.c_str());
    } else {
      KORVEX_TRACE(1, "\nCDirectory          : ERROR cannot remove parent directory \"%s\": %s\n",
                   base.c_str(), ErrorText(lastError));
      result = 0;
    }
  }
  errno = lastError;
  return result;
}
