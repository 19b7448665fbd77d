// The stand-alone host's child processes: CProcess::ExecuteCmd, WaitForExit
// and TerminateProcess (FindProcess is in HostFindProcess.cpp).
//
// ExecuteCmd does not start the command itself: it starts a supervisor
// (host/ProcessTree.h) that owns the command's whole process tree, and
// the id it publishes, waits for and terminates is the supervisor's.
// Every supervisor is kept in a spawn table until it is reaped. One watcher
// thread per supervisor forks it (so that the thread that forked it - the
// one a PID namespace is unshared in - lives exactly as long as it), then
// blocks in poll() on its pidfd until the kernel reports its end, reaps it
// and wakes every waiter. Callers (ExecuteCmd, WaitForExit) wait on a
// condition variable: a wait that CThread::Kill can cancel cleanly, with the
// table mutex released on the way out, and that the sanitizers understand.
// Two rules keep process ids from being mistaken for somebody else's after
// reuse:
//  - a supervisor is reaped only under the table's lock, and it leaves the
//    table in the same step;
//  - a supervisor is signalled only under that lock, through its pidfd,
//    while its entry is still in the table.
//
// Exit codes: the command's own exit status, which the supervisor reports;
// for a command ended by a signal, 128 + the signal number; for a tree
// ended through TerminateProcess, the code given there. When no status was
// reported (the supervisor was killed from outside) 128 + the supervisor's
// signal, or 255 when even that was lost (SIGCHLD ignored by the process).
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "host/ProcessTree.h"
#include "util/Deadline.h"
#include "util/Fd.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <fcntl.h>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using halvane::CToolRun;

constexpr unsigned int kLostStatusCode = 255;
// How many reaped children keep their exit code for a late WaitForExit.
constexpr std::size_t kExitedMemory = 256;

// The tool log of one run, opened before the supervisor starts.
struct CLogFiles {
  std::string m_Path;
  std::string m_Name;
  std::string m_OldName;
  std::size_t m_HalfBytes = 0;
  korvex::CFd m_DirFd;
  korvex::CFd m_Fd;
  std::string m_Problem;
};

struct CChild {
  std::string m_Path;
  std::string m_WorkingDir;
  CLogFiles m_Log;
  halvane::CTreeChild m_Tree;
  korvex::CFd m_PidFd;  // closed when the last holder lets go

  // Under the table lock:
  bool m_StartKnown = false;  // the tool started, or could not
  bool m_Started = false;
  int m_StartError = 0;  // errno of a failed start
  bool m_Reaped = false;
  unsigned int m_ExitCode = 0;
  bool m_Terminated = false;  // TerminateProcess ended it
  unsigned int m_TerminateCode = 0;
};

using CChildPtr = std::shared_ptr<CChild>;

struct CSpawnTable {
  CSpawnTable() {
    pthread_mutex_init(&m_Mutex, nullptr);
    korvex::InitMonotonicCondition(m_Changed);
  }

  // pthread primitives rather than std ones: waits on m_Changed are
  // cancellation points that must unwind (std::condition_variable's wait is
  // not meant to be unwound through).
  pthread_mutex_t m_Mutex;
  pthread_cond_t m_Changed;                // broadcast when a child starts or is reaped
  std::map<pid_t, CChildPtr> m_Live;       // spawned, not yet reaped
  std::map<pid_t, unsigned int> m_Exited;  // reaped: the code they reported
  std::deque<pid_t> m_ExitedOrder;         // oldest first, to bound m_Exited
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

// ----- settings and the record of the last run ------------------------------

struct CProcessSettings {
  std::mutex m_Mutex;
  std::string m_LogPath;
  std::size_t m_LogBytes = halvane::kToolLogBytes;
  CToolRun m_LastRun;
};

CProcessSettings& Settings() {
  static CProcessSettings* const settings = new CProcessSettings;
  return *settings;
}

void RecordRun(const CToolRun& run) {
  CProcessSettings& settings = Settings();
  std::lock_guard<std::mutex> lock(settings.m_Mutex);
  settings.m_LastRun = run;
}

std::string UserName(uid_t uid) {
  passwd entry{};
  passwd* found = nullptr;
  char buffer[1024];
  if (::getpwuid_r(uid, &entry, buffer, sizeof(buffer), &found) == 0 && found != nullptr) {
    return std::string(found->pw_name) + " (uid " + std::to_string(uid) + ")";
  }
  return "uid " + std::to_string(uid);
}

std::string OctalMode(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned int>(mode & 07777));
  return text;
}

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// Run as root, a program that someone else could replace or change would
// run with root's rights: it and its directory must belong to root (or to
// this process's user) and be writable by nobody else.
bool OwnershipAllowed(const char* what, const std::string& path, const struct stat& status,
                      bool directory, std::string& why) {
  const uid_t self = ::geteuid();
  if (status.st_uid != 0 && status.st_uid != self) {
    why =
        std::string(what) + " " + path + " belongs to " + UserName(status.st_uid) + ", not to root";
    return false;
  }
  const bool sticky = directory && (status.st_mode & S_ISVTX) != 0;
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !sticky) {
    why = std::string(what) + " " + path + " is writable by group or others (mode " +
          OctalMode(status.st_mode) + ")";
    return false;
  }
  return true;
}

// False (with the run's result filled in) when the command must not or
// cannot be run.
bool CheckCommand(const char* commandLine, CToolRun& run) {
  struct stat status {};
  if (::stat(commandLine, &status) != 0) {
    run.m_Result = errno == ENOENT || errno == ENOTDIR ? CToolRun::Result::kNotFound
                                                       : CToolRun::Result::kFailed;
    run.m_Code = errno;
    run.m_Why = std::strerror(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    run.m_Result = CToolRun::Result::kNotExecutable;
    run.m_Why = "not a regular file";
    return false;
  }
  if (::geteuid() != 0) return true;
  std::string why;
  const std::string directory = DirectoryOf(commandLine);
  struct stat directoryStatus {};
  if (!OwnershipAllowed("the program", commandLine, status, false, why) ||
      (::stat(directory.c_str(), &directoryStatus) == 0 &&
       !OwnershipAllowed("its directory", directory, directoryStatus, true, why))) {
    run.m_Result = CToolRun::Result::kRefused;
    run.m_Why = why;
    return false;
  }
  return true;
}

std::string TimeText() {
  char text[64];
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S %z", &local);
  return text;
}

korvex::CFd OpenLogFile(const korvex::CFd& directory, const std::string& name) {
  return korvex::CFd(::openat(directory.Get(), name.c_str(),
                              O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0640));
}

// A regular file of this user with no other name: the host may run as root
// and must not be made to write into somebody else's file.
bool IsOwnPlainFile(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
         status.st_uid == ::geteuid();
}

void AppendLogLine(const CLogFiles& log, const std::string& line) {
  if (!log.m_DirFd) return;
  // By name: the supervisor may have moved the file it started with aside,
  // and whatever now has that name is checked again.
  const korvex::CFd fd = OpenLogFile(log.m_DirFd, log.m_Name);
  // A full disk loses the line, nothing more.
  if (fd && IsOwnPlainFile(fd.Get())) korvex::WriteAll(fd.Get(), line.data(), line.size());
}

// Opens the tool log for one run. The log is refused when it is a link, not
// a regular file, linked elsewhere too, or owned by another user: the host
// may run as root and must not be made to write somewhere else.
void OpenLog(CLogFiles& log) {
  std::string path;
  std::size_t bytes = 0;
  {
    CProcessSettings& settings = Settings();
    std::lock_guard<std::mutex> lock(settings.m_Mutex);
    path = settings.m_LogPath;
    bytes = settings.m_LogBytes;
  }
  if (path.empty()) return;
  const std::size_t slash = path.rfind('/');
  log.m_Name = slash == std::string::npos ? path : path.substr(slash + 1);
  log.m_OldName = log.m_Name + ".1";
  log.m_HalfBytes = bytes / 2;
  log.m_DirFd.Reset(::open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (log.m_DirFd) log.m_Fd = OpenLogFile(log.m_DirFd, log.m_Name);
  if (!log.m_Fd) {
    log.m_Problem = "cannot open " + path + ": " + std::strerror(errno);
  } else if (!IsOwnPlainFile(log.m_Fd.Get())) {
    log.m_Problem = path + " is not a plain file of this user; not used";
  }
  if (!log.m_Problem.empty()) {
    log.m_Fd.Reset();
    log.m_DirFd.Reset();
    return;
  }
  log.m_Path = path;
}

// ----- supervisors: start, watch, reap --------------------------------------

void RememberExitLocked(CSpawnTable& table, pid_t pid, unsigned int code) {
  if (table.m_Exited.find(pid) == table.m_Exited.end()) table.m_ExitedOrder.push_back(pid);
  table.m_Exited[pid] = code;
  while (table.m_ExitedOrder.size() > kExitedMemory) {
    table.m_Exited.erase(table.m_ExitedOrder.front());
    table.m_ExitedOrder.pop_front();
  }
}

// Called through syscall(): the C library's <sys/pidfd.h> of this
// generation declares them without C linkage for C++.
int OpenPidFd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0u)); }

int SendSignal(int pidFd, int signal) {
  return static_cast<int>(::syscall(SYS_pidfd_send_signal, pidFd, signal, nullptr, 0u));
}

// True when the (unreaped) supervisor has already ended; does not reap it.
bool HasEndedLocked(const CChild& child) {
  siginfo_t info;
  std::memset(&info, 0, sizeof(info));
  const int rc = KORVEX_RETRY(
      ::waitid(P_PID, static_cast<id_t>(child.m_Tree.m_Pid), &info, WEXITED | WNOHANG | WNOWAIT));
  return rc != 0 || info.si_pid == child.m_Tree.m_Pid;
}

// Forks the supervisor and waits for its first report: the tool started, or
// could not. With every signal blocked in this thread meanwhile, so that the
// supervisor starts with them blocked and reads them from its signalfd.
void Launch(const CChildPtr& child, bool tryNamespace) {
  halvane::CTreeLaunch launch;
  launch.m_Path = child->m_Path.c_str();
  launch.m_WorkingDir = child->m_WorkingDir.c_str();
  launch.m_LogFd = child->m_Log.m_Fd.Get();
  launch.m_LogDirFd = child->m_Log.m_DirFd.Get();
  launch.m_LogName = child->m_Log.m_Name.c_str();
  launch.m_LogOldName = child->m_Log.m_OldName.c_str();
  launch.m_LogHalfBytes = child->m_Log.m_HalfBytes;
  launch.m_GraceMs = halvane::kToolGraceMs;
  launch.m_TryNamespace = tryNamespace;

  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  int error = 0;
  const bool forked = halvane::StartSupervisor(launch, child->m_Tree, &error);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);

  CSpawnTable& table = Spawns();
  halvane::CTreeReport report{0, 0};
  const bool reported = forked && halvane::ReadTreeReport(child->m_Tree.m_ReportFd.Get(), report);
  CTableLock lock(table);
  if (forked) {
    child->m_PidFd.Reset(OpenPidFd(child->m_Tree.m_Pid));  // close-on-exec by nature
    table.m_Live[child->m_Tree.m_Pid] = child;
    // An old child's id came back: its remembered code is not this one's.
    if (table.m_Exited.erase(child->m_Tree.m_Pid) != 0) {
      table.m_ExitedOrder.erase(
          std::find(table.m_ExitedOrder.begin(), table.m_ExitedOrder.end(), child->m_Tree.m_Pid));
    }
  }
  child->m_Started = reported && report.m_Kind == halvane::kTreeStarted;
  child->m_StartError = child->m_Started ? 0 : (reported ? report.m_Value : error);
  child->m_StartKnown = true;
  pthread_cond_broadcast(&table.m_Changed);
}

// Blocks until the supervisor has ended, without reaping it.
void BlockUntilEnded(const CChild& child) {
  if (child.m_PidFd) {
    pollfd descriptor{child.m_PidFd.Get(), POLLIN, 0};
    if (KORVEX_RETRY(::poll(&descriptor, 1, -1)) > 0) return;
    // A failed poll falls back to waitid.
  }
  siginfo_t info;
  std::memset(&info, 0, sizeof(info));
  KORVEX_RETRY(::waitid(P_PID, static_cast<id_t>(child.m_Tree.m_Pid), &info, WEXITED | WNOWAIT));
}

std::string SignalName(int signo) {
  const char* abbreviation = ::sigabbrev_np(signo);
  return abbreviation != nullptr ? std::string("SIG") + abbreviation : std::to_string(signo);
}

// How the run ended, from the tool's status that the supervisor reported
// or, without one, from the supervisor's own end (rc and info of waitid);
// the exit code ExecuteCmd and WaitForExit give.
unsigned int Outcome(bool haveStatus, int toolStatus, int rc, const siginfo_t& info,
                     CToolRun& run) {
  if (haveStatus && WIFEXITED(toolStatus)) {
    run.m_Result = CToolRun::Result::kExited;
    run.m_Code = WEXITSTATUS(toolStatus);
    return static_cast<unsigned int>(run.m_Code);
  }
  if (haveStatus && WIFSIGNALED(toolStatus)) {
    run.m_Result = CToolRun::Result::kSignaled;
    run.m_Code = WTERMSIG(toolStatus);
    return 128u + static_cast<unsigned int>(run.m_Code);
  }
  if (rc == 0 && info.si_code != CLD_EXITED) {  // the supervisor was killed
    run.m_Result = CToolRun::Result::kSignaled;
    run.m_Code = info.si_status;
    return 128u + static_cast<unsigned int>(info.si_status);
  }
  run.m_Result = CToolRun::Result::kFailed;
  run.m_Why = "its exit status was lost";
  return kLostStatusCode;
}

// The tool log's closing line of a run that started.
std::string EndLine(const CChild& child, bool haveStatus, int toolStatus, const CToolRun& run) {
  std::string how = "exit code " + std::to_string(child.m_ExitCode);
  if (haveStatus && WIFSIGNALED(toolStatus)) how = "killed by " + SignalName(WTERMSIG(toolStatus));
  if (run.m_Result == CToolRun::Result::kTerminated) how += ", stopped by the host";
  return "--- " + TimeText() + " " + child.m_Path + " ended: " + how + "\n";
}

// Reaps the ended supervisor under the lock, with the tool's status from the
// report pipe, and records how the run went.
void Reap(const CChildPtr& child, bool haveStatus, int toolStatus) {
  CToolRun run;
  run.m_Path = child->m_Path;
  run.m_Pid = static_cast<unsigned int>(child->m_Tree.m_Pid);
  run.m_Namespace = child->m_Tree.m_Namespace;
  run.m_LogPath = child->m_Log.m_Path;
  run.m_LogProblem = child->m_Log.m_Problem;
  CSpawnTable& table = Spawns();
  CTableLock lock(table);
  siginfo_t info;
  std::memset(&info, 0, sizeof(info));
  const int rc =
      KORVEX_RETRY(::waitid(P_PID, static_cast<id_t>(child->m_Tree.m_Pid), &info, WEXITED));
  unsigned int code = Outcome(haveStatus, toolStatus, rc, info, run);
  if (child->m_Terminated) {
    code = child->m_TerminateCode;
    run.m_Result = CToolRun::Result::kTerminated;
    run.m_Code = static_cast<int>(code);
  }
  child->m_ExitCode = code;
  child->m_Reaped = true;
  table.m_Live.erase(child->m_Tree.m_Pid);
  RememberExitLocked(table, child->m_Tree.m_Pid, code);
  // Recorded before anyone wakes: whoever got the exit code may ask how the
  // run went at once. A tool that never started is recorded by ExecuteCmd.
  if (child->m_Started) {
    AppendLogLine(child->m_Log, EndLine(*child, haveStatus, toolStatus, run));
    RecordRun(run);
  }
  pthread_cond_broadcast(&table.m_Changed);
}

// After the start: waits for the supervisor's end (it comes only once the
// whole tree is gone), reads the tool's status and reaps it.
void Watch(const CChildPtr& child) {
  BlockUntilEnded(*child);
  bool haveStatus = false;
  int toolStatus = 0;
  halvane::CTreeReport report{0, 0};
  while (halvane::ReadTreeReport(child->m_Tree.m_ReportFd.Get(), report)) {
    if (report.m_Kind == halvane::kTreeToolEnded) {
      haveStatus = true;
      toolStatus = report.m_Value;
    }
  }
  Reap(child, haveStatus, toolStatus);
}

void RunWatcher(const CChildPtr& child) {
  // A supervisor that could not start the tool has ended or is about to.
  Launch(child, true);
  if (child->m_Tree.m_Pid > 0) Watch(child);
}

// Starts the watcher thread; false when no thread could be had.
bool StartWatcher(const CChildPtr& child) {
  try {
    std::thread([child] {
      // A detached helper must never be unwound halfway through a reap.
      pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      RunWatcher(child);
    }).detach();
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

// Waits until the child is reaped (by its watcher) or the time-out passed;
// CEvent::kInfinite waits without limit. A cancellation point: a thread
// killed here leaves the child running, in the table, still ours to
// terminate and reap.
bool WaitReaped(const CChildPtr& child, unsigned int timeoutMs, unsigned int& exitCode) {
  CSpawnTable& table = Spawns();
  CTableLock lock(table);
  const bool forever = timeoutMs == CEvent::kInfinite;
  const timespec deadline = korvex::MonotonicDeadlineAfter(forever ? 0u : timeoutMs);
  if (!korvex::WaitCondition(table.m_Changed, table.m_Mutex, forever ? nullptr : &deadline,
                             [&] { return child->m_Reaped; })) {
    return false;
  }
  exitCode = child->m_ExitCode;
  return true;
}

void WaitStartKnown(const CChildPtr& child) {
  CSpawnTable& table = Spawns();
  CTableLock lock(table);
  korvex::WaitCondition(table.m_Changed, table.m_Mutex, nullptr,
                        [&] { return child->m_StartKnown; });
}

void RecordStartFailure(const CChild& child) {
  CToolRun run;
  run.m_Path = child.m_Path;
  run.m_LogPath = child.m_Log.m_Path;
  run.m_LogProblem = child.m_Log.m_Problem;
  run.m_Code = child.m_StartError;
  run.m_Why = std::strerror(child.m_StartError);
  switch (child.m_StartError) {
    case ENOENT:
    case ENOTDIR:
      run.m_Result = CToolRun::Result::kNotFound;
      break;
    case EACCES:
    case ENOEXEC:
    case EPERM:
    case EISDIR:
    case ELIBBAD:
    case ETXTBSY:
      run.m_Result = CToolRun::Result::kNotExecutable;
      break;
    default:
      run.m_Result = CToolRun::Result::kFailed;
  }
  AppendLogLine(child.m_Log, "--- " + TimeText() + " " + child.m_Path +
                                 " could not be started: " + run.m_Why + "\n");
  RecordRun(run);
}

// The child of one ExecuteCmd, its log opened and its start logged and
// recorded as the running last run.
CChildPtr NewRun(const char* commandLine, const char* workingDir) {
  const CChildPtr child = std::make_shared<CChild>();
  child->m_Path = commandLine;
  if (workingDir != nullptr) child->m_WorkingDir = workingDir;
  OpenLog(child->m_Log);
  AppendLogLine(child->m_Log, "--- " + TimeText() + " " + child->m_Path + " started\n");
  CToolRun running;
  running.m_Result = CToolRun::Result::kRunning;
  running.m_Path = child->m_Path;
  running.m_LogPath = child->m_Log.m_Path;
  running.m_LogProblem = child->m_Log.m_Problem;
  RecordRun(running);
  return child;
}

// The running last run learns the id it is known by.
void RecordStarted(const CChild& child) {
  CProcessSettings& settings = Settings();
  std::lock_guard<std::mutex> lock(settings.m_Mutex);
  if (settings.m_LastRun.m_Result == CToolRun::Result::kRunning) {
    settings.m_LastRun.m_Pid = static_cast<unsigned int>(child.m_Tree.m_Pid);
    settings.m_LastRun.m_Namespace = child.m_Tree.m_Namespace;
  }
}

bool ValidPid(unsigned int processId) {
  return processId > 1 && processId <= static_cast<unsigned int>(INT_MAX);
}

}  // namespace

namespace halvane {

void SetToolLog(const std::string& path, std::size_t maxBytes) {
  CProcessSettings& settings = Settings();
  std::lock_guard<std::mutex> lock(settings.m_Mutex);
  settings.m_LogPath = path;
  settings.m_LogBytes = maxBytes;
}

CToolRun LastToolRun() {
  CProcessSettings& settings = Settings();
  std::lock_guard<std::mutex> lock(settings.m_Mutex);
  return settings.m_LastRun;
}

unsigned int TerminateRunningTools(unsigned int exitCode) {
  std::vector<pid_t> running;
  {
    CSpawnTable& table = Spawns();
    CTableLock lock(table);
    for (const auto& entry : table.m_Live) running.push_back(entry.first);
  }
  unsigned int told = 0;
  for (const pid_t pid : running) {
    if (CProcess::TerminateProcess(static_cast<unsigned int>(pid), exitCode)) ++told;
  }
  return told;
}

}  // namespace halvane

// workingDir, when given, is the child's working directory. hidden has no
// meaning without a window system and is ignored.
bool CProcess::ExecuteCmd(const char* commandLine, unsigned int& processId, unsigned int& exitCode,
                          const char* workingDir, bool /*hidden*/) {
  if (commandLine == nullptr || *commandLine == '\0') return false;

  // The whole command line is the path of the program: no shell, no word
  // splitting, no search along PATH. A path with blanks or ';' runs exactly
  // that file.
  CToolRun refused;
  refused.m_Path = commandLine;
  if (!CheckCommand(commandLine, refused)) {
    RecordRun(refused);
    return false;
  }

  const CChildPtr child = NewRun(commandLine, workingDir);
  const bool watched = StartWatcher(child);
  if (watched) {
    WaitStartKnown(child);
  } else {
    // No thread to be had: this thread starts and watches the tree itself,
    // without a namespace (a thread can unshare for one supervisor only).
    Launch(child, false);
  }
  if (!child->m_Started) {
    if (child->m_Tree.m_Pid > 0 && !watched) Watch(child);
    unsigned int ignored = 0;
    if (child->m_Tree.m_Pid > 0) WaitReaped(child, CEvent::kInfinite, ignored);
    RecordStartFailure(*child);
    return false;
  }
  // Visible to other threads from here on (the module reads it with an
  // atomic load to terminate a long run).
  __atomic_store_n(&processId, static_cast<unsigned int>(child->m_Tree.m_Pid), __ATOMIC_RELEASE);
  RecordStarted(*child);
  if (!watched) Watch(child);
  unsigned int code = 0;
  if (!WaitReaped(child, CEvent::kInfinite, code)) return false;
  exitCode = code;
  return true;
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

// Tells the supervisor to end the tree: SIGTERM to all of it, SIGKILL to
// what is left after the grace period. A tree that had already ended by
// itself keeps its own exit code.
bool CProcess::TerminateProcess(unsigned int processId, unsigned int exitCode) {
  if (!ValidPid(processId)) return false;
  const pid_t pid = static_cast<pid_t>(processId);
  CSpawnTable& table = Spawns();
  CTableLock lock(table);
  auto live = table.m_Live.find(pid);
  if (live == table.m_Live.end()) return false;  // not ours, or already reaped: signal nobody
  CChild& child = *live->second;
  if (HasEndedLocked(child)) return true;
  if (!child.m_Terminated) {
    child.m_Terminated = true;
    child.m_TerminateCode = exitCode;
  }
  if (child.m_PidFd) {
    SendSignal(child.m_PidFd.Get(), SIGTERM);
  } else {
    ::kill(pid, SIGTERM);  // still reserved by our unreaped supervisor
  }
  return true;
}
