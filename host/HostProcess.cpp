// The stand-alone host's child processes: CProcess::ExecuteCmd, WaitForExit,
// TerminateProcess and FindProcess.
//
// Every child started by ExecuteCmd is kept in a spawn table until it is
// reaped. One watcher thread per child blocks in poll() on the child's pidfd
// (no polling loop: it sleeps until the kernel reports the exit), reaps the
// child and wakes every waiter. Callers (ExecuteCmd, WaitForExit) wait on a
// condition variable: a wait that CThread::Kill can cancel cleanly, with the
// table mutex released on the way out, and that the sanitizers understand.
// Two rules keep process ids from being mistaken for somebody else's after
// reuse:
//  - a child is reaped only under the table's lock, and it leaves the table
//    in the same step;
//  - a process (or its group) is signalled only under that lock, while its
//    entry is still in the table, i.e. while the id is still reserved by our
//    unreaped child.
//
// Exit codes: the child's exit status; for a child ended by a signal, 128 +
// the signal number; for a child ended through TerminateProcess, the code
// given there. When the status was lost (SIGCHLD set to SIG_IGN reaps
// children behind our back) a child not terminated by us reports 255.
#include "frame/HostServices.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>

extern char** environ;

namespace {

constexpr unsigned int kLostStatusCode = 255;
// How many reaped children keep their exit code for a late WaitForExit.
constexpr std::size_t kExitedMemory = 256;

struct CChild {
  pid_t m_Pid = 0;
  int m_PidFd = -1;             // owned; closed when the last waiter lets go
  bool m_Reaped = false;
  unsigned int m_ExitCode = 0;
  bool m_Terminated = false;    // TerminateProcess ended it
  unsigned int m_TerminateCode = 0;

  CChild() = default;
  CChild(const CChild&) = delete;
  CChild& operator=(const CChild&) = delete;
  ~CChild() {
    if (m_PidFd >= 0) ::close(m_PidFd);  // never retried on EINTR: the fd is gone either way
  }
};

using CChildPtr = std::shared_ptr<CChild>;

struct CSpawnTable {
  CSpawnTable() {
    pthread_mutex_init(&m_Mutex, nullptr);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&m_Reaped, &attributes);
    pthread_condattr_destroy(&attributes);
  }

  // pthread primitives rather than std ones: waits on m_Reaped are
  // cancellation points that must unwind (std::condition_variable's wait is
  // not meant to be unwound through).
  pthread_mutex_t m_Mutex;
  pthread_cond_t m_Reaped;                     // broadcast whenever a child is reaped
  std::map<pid_t, CChildPtr> m_Live;           // spawned, not yet reaped
  std::map<pid_t, unsigned int> m_Exited;      // reaped: the code they reported
  std::deque<pid_t> m_ExitedOrder;             // oldest first, to bound m_Exited
};

CSpawnTable& Spawns() {
  static CSpawnTable* const table = new CSpawnTable;  // children may outlive static destruction
  return *table;
}

// Holds the table mutex for a scope; also releases it when a cancelled wait
// unwinds (the cancelled pthread_cond_wait re-acquires it first).
class CTableLock {
 public:
  explicit CTableLock(CSpawnTable& table) : m_Table(table) { pthread_mutex_lock(&m_Table.m_Mutex); }
  ~CTableLock() { pthread_mutex_unlock(&m_Table.m_Mutex); }
  CTableLock(const CTableLock&) = delete;
  CTableLock& operator=(const CTableLock&) = delete;

 private:
  CSpawnTable& m_Table;
};

void RememberExitLocked(CSpawnTable& table, pid_t pid, unsigned int code) {
  if (table.m_Exited.find(pid) == table.m_Exited.end()) table.m_ExitedOrder.push_back(pid);
  table.m_Exited[pid] = code;
  while (table.m_ExitedOrder.size() > kExitedMemory) {
    table.m_Exited.erase(table.m_ExitedOrder.front());
    table.m_ExitedOrder.pop_front();
  }
}

unsigned int CodeFromSiginfo(const siginfo_t& info) {
  if (info.si_code == CLD_EXITED) return static_cast<unsigned int>(info.si_status);
  return 128u + static_cast<unsigned int>(info.si_status);  // CLD_KILLED, CLD_DUMPED
}

// Reaps child if it has ended. Table lock held. True when the child is (now
// or already) reaped; its code is then in m_ExitCode.
bool ReapLocked(CSpawnTable& table, CChild& child) {
  if (child.m_Reaped) return true;
  siginfo_t info;
  std::memset(&info, 0, sizeof(info));
  int rc;
  do {
    rc = ::waitid(P_PID, static_cast<id_t>(child.m_Pid), &info, WEXITED | WNOHANG);
  } while (rc < 0 && errno == EINTR);
  unsigned int code = 0;
  if (rc == 0) {
    if (info.si_pid != child.m_Pid) return false;  // still running
    code = CodeFromSiginfo(info);
  } else {
    code = kLostStatusCode;  // ECHILD: reaped behind our back, status lost
  }
  if (child.m_Terminated) code = child.m_TerminateCode;
  child.m_ExitCode = code;
  child.m_Reaped = true;
  table.m_Live.erase(child.m_Pid);
  RememberExitLocked(table, child.m_Pid, code);
  return true;
}

// True when the (unreaped) child has already ended; does not reap it.
bool HasEndedLocked(const CChild& child) {
  siginfo_t info;
  std::memset(&info, 0, sizeof(info));
  int rc;
  do {
    rc = ::waitid(P_PID, static_cast<id_t>(child.m_Pid), &info, WEXITED | WNOHANG | WNOWAIT);
  } while (rc < 0 && errno == EINTR);
  return rc != 0 || info.si_pid == child.m_Pid;
}

// Blocks until the child has ended, without reaping it.
void BlockUntilEnded(const CChild& child) {
  if (child.m_PidFd >= 0) {
    pollfd descriptor{child.m_PidFd, POLLIN, 0};
    for (;;) {
      const int rc = ::poll(&descriptor, 1, -1);
      if (rc > 0) return;
      if (rc < 0 && errno != EINTR) break;  // fall back to waitid below
    }
  }
  siginfo_t info;
  std::memset(&info, 0, sizeof(info));
  while (::waitid(P_PID, static_cast<id_t>(child.m_Pid), &info, WEXITED | WNOWAIT) < 0 &&
         errno == EINTR) {
  }
}

// The watcher: waits for the child's end, reaps it under the lock and wakes
// all waiters. Runs on its own thread, which nobody cancels.
void WatchChild(const CChildPtr& child) {
  CSpawnTable& table = Spawns();
  for (;;) {
    BlockUntilEnded(*child);
    CTableLock lock(table);
    if (!child->m_Reaped && HasEndedLocked(*child)) {
      // The child has ended: whatever it left running in its process group
      // (a helper it started in the background and did not wait for) is
      // ended with it, so that a tool never leaves processes behind. The
      // group's id is still reserved by our unreaped child, so the signal
      // can reach nobody else. A process that left the group is not reached.
      ::kill(-child->m_Pid, SIGKILL);
    }
    if (ReapLocked(table, *child)) {
      pthread_cond_broadcast(&table.m_Reaped);
      return;
    }
  }
}

void StartWatcher(const CChildPtr& child) {
  // Cancellation stays off on the watcher (it inherits nothing of the kind,
  // but a detached helper must never be unwound halfway through a reap).
  try {
    std::thread([child] {
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      WatchChild(child);
    }).detach();
  } catch (const std::system_error&) {
    // No thread to be had: the caller watches itself. Its wait is then
    // poll() on the pidfd, still a cancellation point.
    WatchChild(child);
  }
}

timespec DeadlineAfter(unsigned int timeoutMs) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000u);
  deadline.tv_nsec += static_cast<long>(timeoutMs % 1000u) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

// Waits until the child is reaped (by its watcher) or the time-out passed;
// CEvent::kInfinite waits without limit. A cancellation point: a thread
// killed here leaves the child running, in the table, still ours to
// terminate and reap.
bool WaitReaped(const CChildPtr& child, unsigned int timeoutMs, unsigned int& exitCode) {
  CSpawnTable& table = Spawns();
  CTableLock lock(table);
  if (timeoutMs == CEvent::kInfinite) {
    while (!child->m_Reaped) pthread_cond_wait(&table.m_Reaped, &table.m_Mutex);
  } else {
    const timespec deadline = DeadlineAfter(timeoutMs);
    while (!child->m_Reaped) {
      if (pthread_cond_timedwait(&table.m_Reaped, &table.m_Mutex, &deadline) == ETIMEDOUT) break;
    }
  }
  if (!child->m_Reaped) return false;
  exitCode = child->m_ExitCode;
  return true;
}

// Called through syscall(): the C library's <sys/pidfd.h> of this
// generation declares them without C linkage for C++.
int OpenPidFd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)); }

int SendSignal(int pidFd, int signal) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidFd, signal, nullptr, 0u));
}

bool ValidPid(unsigned int processId) {
  return processId > 1 && processId <= static_cast<unsigned int>(INT_MAX);
}

// Reads a small /proc file whole, by its path below the /proc directory
// (procFd); empty on any error.
std::string ReadSmallFile(int procFd, const std::string& relativePath) {
  const int fd = ::openat(procFd, relativePath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string();
  std::string text;
  char buffer[512];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
    if (text.size() > 65536) break;
  }
  ::close(fd);
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
      if (ReadAt(known->second.m_Fd, comm)) return true;
      ::close(known->second.m_Fd);  // reaped; the number may be somebody else's now
      m_Entries.erase(known);
    }
    char path[32];
    const std::size_t digits = std::strlen(pidText);
    static const char kLeaf[] = "/comm";
    if (digits + sizeof(kLeaf) > sizeof(path)) return false;
    std::memcpy(path, pidText, digits);
    std::memcpy(path + digits, kLeaf, sizeof(kLeaf));
    const int fd = ::openat(procFd, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool read = ReadAt(fd, comm);
    if (read && m_Entries.size() < Limit()) {
      m_Entries.emplace(pid, CEntry{fd, m_Generation});
    } else {
      ::close(fd);
    }
    return read;
  }

  // After a whole search: closes the descriptors of numbers it did not see.
  void Sweep() {
    for (auto entry = m_Entries.begin(); entry != m_Entries.end();) {
      if (entry->second.m_Generation != m_Generation) {
        ::close(entry->second.m_Fd);
        entry = m_Entries.erase(entry);
      } else {
        ++entry;
      }
    }
    ++m_Generation;
  }

 private:
  struct CEntry {
    int m_Fd;
    unsigned int m_Generation;  // the search that last saw the number
  };

  // The kernel hands comm over whole (at most 15 characters and a line
  // break) in one read.
  static bool ReadAt(int fd, char (&comm)[64]) {
    ssize_t got;
    do {
      got = ::pread(fd, comm, sizeof(comm) - 1, 0);
    } while (got < 0 && errno == EINTR);
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

bool ProcessMatches(CNameCache& names, int procFd, pid_t pid, const char* pidText,
                    const char* name) {
  char comm[64];
  if (!names.Read(procFd, pid, pidText, comm)) return false;
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

// workingDir, when given, is the child's working directory. hidden has no
// meaning without a window system and is ignored.
bool CProcess::ExecuteCmd(const char* commandLine, unsigned int& processId, unsigned int& exitCode,
                          const char* workingDir, bool /*hidden*/) {
  if (commandLine == nullptr || *commandLine == '\0') return false;

  // The whole command line is the path of the program: no shell, no word
  // splitting, no search along PATH. A path with blanks or ';' runs exactly
  // that file.
  struct stat status;
  if (::stat(commandLine, &status) != 0 || !S_ISREG(status.st_mode)) return false;

  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // Own process group (pgid = the child's pid): TerminateProcess ends the
  // child together with whatever it started.
  posix_spawnattr_setpgroup(&attributes, 0);
  sigset_t mask;
  sigemptyset(&mask);
  posix_spawnattr_setsigmask(&attributes, &mask);
  sigset_t defaults;
  sigfillset(&defaults);  // every catchable signal back to its default action
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (workingDir != nullptr && *workingDir != '\0') {
    posix_spawn_file_actions_addchdir_np(&actions, workingDir);
  }

  char* const arguments[] = {const_cast<char*>(commandLine), nullptr};
  CSpawnTable& table = Spawns();
  CChildPtr child;
  {
    // Spawn and register under the lock: TerminateProcess and WaitForExit
    // never see a child that exists but is not in the table yet.
    CTableLock lock(table);
    pid_t pid = 0;
    const int rc = posix_spawn(&pid, commandLine, &actions, &attributes, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) return false;  // glibc reports a failed exec here (missing, not executable, ...)

    child = std::make_shared<CChild>();
    child->m_Pid = pid;
    child->m_PidFd = OpenPidFd(pid);  // close-on-exec by nature
    table.m_Live[pid] = child;
    // An old child's id came back: its remembered code is not this one's.
    if (table.m_Exited.erase(pid) != 0) {
      table.m_ExitedOrder.erase(
          std::find(table.m_ExitedOrder.begin(), table.m_ExitedOrder.end(), pid));
    }
    // Visible to other threads from here on (the module reads it with an
    // atomic load to terminate a long run).
    __atomic_store_n(&processId, static_cast<unsigned int>(pid), __ATOMIC_RELEASE);
  }

  StartWatcher(child);
  unsigned int code = 0;
  if (!WaitReaped(child, CEvent::kInfinite, code)) return false;
  exitCode = code;
  return true;
}

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

// Only children started by ExecuteCmd can be waited for. One that was
// reaped already (by ExecuteCmd or an earlier wait) reports its code at
// once; any other id yields false.
bool CProcess::WaitForExit(unsigned int processId, unsigned int& exitCode, unsigned int timeoutMs) {
  if (!ValidPid(processId)) return false;
  const pid_t pid = static_cast<pid_t>(processId);
  CSpawnTable& table = Spawns();
  CChildPtr child;
  {
    CTableLock lock(table);
    auto live = table.m_Live.find(pid);
    if (live != table.m_Live.end()) {
      child = live->second;
    } else {
      auto exited = table.m_Exited.find(pid);
      if (exited == table.m_Exited.end()) return false;
      exitCode = exited->second;
      return true;
    }
  }
  unsigned int code = 0;
  if (!WaitReaped(child, timeoutMs, code)) return false;
  exitCode = code;
  return true;
}

// SIGKILL to the child and its process group, so nothing it started lives
// on. A child that had already ended by itself keeps its own exit code.
bool CProcess::TerminateProcess(unsigned int processId, unsigned int exitCode) {
  if (!ValidPid(processId)) return false;
  const pid_t pid = static_cast<pid_t>(processId);
  CSpawnTable& table = Spawns();
  CTableLock lock(table);
  auto live = table.m_Live.find(pid);
  if (live == table.m_Live.end()) return false;  // not ours, or already reaped: signal nobody
  CChild& child = *live->second;
  if (HasEndedLocked(child)) return true;
  child.m_Terminated = true;
  child.m_TerminateCode = exitCode;
  if (child.m_PidFd >= 0) {
    SendSignal(child.m_PidFd, SIGKILL);
  } else {
    ::kill(pid, SIGKILL);
  }
  // The group id equals the child's id, which our unreaped child still
  // reserves. It fails harmlessly when the child left its group.
  ::kill(-pid, SIGKILL);
  return true;
}
