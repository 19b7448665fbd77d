// CProcess::FindProcess: is a process of a given name running? Reads the
// names of the machine's processes from /proc, through a cache of open
// comm descriptors.
#include "frame/HostServices.h"
#include "util/Fd.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace {

// Reads a small /proc file whole, by its path below the /proc directory
// (procFd); empty on any error.
std::string ReadSmallFile(int procFd, const std::string& relativePath) {
  const korvex::CFd fd(::openat(procFd, relativePath.c_str(), O_RDONLY | O_CLOEXEC));
  std::string text;
  if (fd) korvex::ReadToEnd(fd.Get(), text, 65536);  // what came before an error is kept
  return text;
}

// The kernel keeps at most 15 characters of a process name in comm.
constexpr std::size_t kCommLength = 15;

// The names of the machine's processes, for FindProcess, which reads the
// name (comm) of every process each time it looks for one. Opening
// /proc/<pid>/comm is most of that cost (the read is a quarter of it), so
// the descriptors stay open from one search to the next and are read again
// with pread at offset 0, which makes the kernel produce the current name
// afresh, also after an exec. A descriptor belongs to its process, not to
// the number: once that process has been reaped the read fails (ESRCH), and
// a new process under the same number is opened anew. Numbers that a whole
// search no longer finds in /proc are closed after it. At most kMaxNames
// descriptors (and no more than an eighth of the open-files limit) are
// kept; further processes are read with openat, read and close. All are
// close-on-exec, so no child ever sees them.
class CNameCache {
 public:
  static constexpr std::size_t kMaxNames = 256;

  std::mutex m_Mutex;  // held for a whole search

  // comm of the process pid (pidText in decimal), without its line break;
  // false when the process is gone or its name cannot be read.
  bool Read(int procFd, pid_t pid, const char* pidText, char (&comm)[64]) {
    const auto known = m_Entries.find(pid);
    if (known != m_Entries.end()) {
      known->second.m_Generation = m_Generation;
      if (ReadAt(known->second.m_Fd.Get(), comm)) return true;
      m_Entries.erase(known);  // reaped; the number may be somebody else's now
    }
    char path[32];
    const std::size_t digits = std::strlen(pidText);
    static const char kLeaf[] = "/comm";
    if (digits + sizeof(kLeaf) > sizeof(path)) return false;
    std::memcpy(path, pidText, digits);
    std::memcpy(path + digits, kLeaf, sizeof(kLeaf));
    korvex::CFd fd(::openat(procFd, path, O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    const bool read = ReadAt(fd.Get(), comm);
    if (read && m_Entries.size() < Limit())
      m_Entries.emplace(pid, CEntry{std::move(fd), m_Generation});
    return read;
  }

  // After a whole search: closes the descriptors of numbers it did not see.
  void Sweep() {
    for (auto entry = m_Entries.begin(); entry != m_Entries.end();) {
      if (entry->second.m_Generation != m_Generation) {
        entry = m_Entries.erase(entry);
      } else {
        ++entry;
      }
    }
    ++m_Generation;
  }

 private:
  struct CEntry {
    korvex::CFd m_Fd;
    unsigned int m_Generation;  // the search that last saw the number
  };

  // The kernel hands comm over whole (at most 15 characters and a line
  // break) in one read.
  static bool ReadAt(int fd, char (&comm)[64]) {
    const ssize_t got = KORVEX_RETRY(::pread(fd, comm, sizeof(comm) - 1, 0));
    if (got <= 0) return false;
    std::size_t length = static_cast<std::size_t>(got);
    if (comm[length - 1] == '\n') --length;
    comm[length] = '\0';
    return true;
  }

  std::size_t Limit() {
    if (m_Limit == kUnknownLimit) {
      rlimit files{};
      m_Limit = kMaxNames;
      if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur != RLIM_INFINITY) {
        m_Limit = std::min<std::size_t>(kMaxNames, static_cast<std::size_t>(files.rlim_cur / 8));
      }
    }
    return m_Limit;
  }

  static constexpr std::size_t kUnknownLimit = ~std::size_t{0};
  std::unordered_map<pid_t, CEntry> m_Entries;
  unsigned int m_Generation = 1;
  std::size_t m_Limit = kUnknownLimit;
};

CNameCache& Names() {
  static CNameCache* const cache = new CNameCache;  // searches may run during static destruction
  return *cache;
}

// A process counts only when it runs as root or as the user this process
// runs as: any other local user could otherwise block every collection by
// starting a program of the same name. The owner of /proc/<pid> is the
// process's effective user.
bool OwnerCounts(int procFd, const char* pidText) {
  struct stat status {};
  if (::fstatat(procFd, pidText, &status, 0) != 0) return false;
  return status.st_uid == 0 || status.st_uid == ::geteuid();
}

bool ProcessMatches(CNameCache& names, int procFd, pid_t pid, const char* pidText,
                    const char* name) {
  char comm[64];
  if (!names.Read(procFd, pid, pidText, comm)) return false;
  if (!OwnerCounts(procFd, pidText)) return false;
  const std::size_t nameLength = std::strlen(name);
  if (nameLength < kCommLength) {
    if (std::strcmp(comm, name) != 0) return false;
  } else {
    // comm may be a longer name cut to 15 characters: the first word of the
    // command line must then name the program in full.
    if (std::strlen(comm) != kCommLength || std::memcmp(comm, name, kCommLength) != 0) return false;
    const std::string commandLine = ReadSmallFile(procFd, std::string(pidText) + "/cmdline");
    const std::string first = commandLine.substr(0, commandLine.find('\0'));
    const std::size_t slash = first.rfind('/');
    if ((slash == std::string::npos ? first : first.substr(slash + 1)) != name) return false;
  }
  // Zombies have ended: only a running process counts. The state follows
  // the last ')' in stat (the name itself may hold parentheses).
  const std::string stat = ReadSmallFile(procFd, std::string(pidText) + "/stat");
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return false;
  const char state = stat[close + 2];
  return state != 'Z' && state != 'X' && state != 'x';
}

}  // namespace

bool CProcess::FindProcess(unsigned int& processId, const char* processName) {
  if (processName == nullptr || *processName == '\0') return false;
  CNameCache& names = Names();
  std::lock_guard<std::mutex> lock(names.m_Mutex);
  DIR* const proc = ::opendir("/proc");  // opened close-on-exec by the C library
  if (proc == nullptr) return false;
  const int procFd = ::dirfd(proc);
  bool found = false;
  while (const dirent* item = ::readdir(proc)) {
    const char* name = item->d_name;
    if (*name < '1' || *name > '9') continue;
    char* end = nullptr;
    const unsigned long pid = std::strtoul(name, &end, 10);
    if (*end != '\0' || pid > static_cast<unsigned long>(INT_MAX)) continue;
    if (ProcessMatches(names, procFd, static_cast<pid_t>(pid), name, processName)) {
      processId = static_cast<unsigned int>(pid);
      found = true;
      break;
    }
  }
  ::closedir(proc);
  if (!found) names.Sweep();  // only a whole search knows which numbers are gone
  return found;
}
