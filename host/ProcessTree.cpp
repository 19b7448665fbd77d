// The supervisor of a tool's process tree; see ProcessTree.h for what it
// guarantees. The code below the fork runs in a child of a multithreaded
// process: only system calls, on memory prepared before the fork. Its
// descriptors are plain numbers: it ends in _exit, where no destructor
// runs, and it closes by hand the few it must give up early (a pipe's far
// end, the output at its end); helpers that open and close within one call
// (ParentOf, SignalDescendants) use CFd like the host side.
#include "host/ProcessTree.h"

#include "host/ToolLog.h"
#include "util/Fd.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace halvane {
namespace {

// How often, once SIGKILL went out, a supervisor without a namespace looks
// again for processes that were forked while it was signalling.
constexpr int kRekillMs = 50;
// The most processes of one tree that a supervisor without a namespace
// tracks in one walk of /proc (a fixed array: no allocation after fork).
constexpr std::size_t kMaxTree = 4096;

std::int64_t NowMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The host may have gone; a report nobody reads is lost, nothing more.
void Report(int fd, int kind, int value) {
  const CTreeReport report{kind, value};
  korvex::WriteAll(fd, &report, sizeof(report));
}

// Closes every descriptor from 3 up except those in keep (at most 4).
void CloseAllExcept(int (&keep)[4]) {
  for (int i = 1; i < 4; ++i) {  // insertion sort: four numbers
    for (int j = i; j > 0 && keep[j] < keep[j - 1]; --j) {
      const int swap = keep[j];
      keep[j] = keep[j - 1];
      keep[j - 1] = swap;
    }
  }
  unsigned int from = 3;
  for (const int fd : keep) {
    if (fd < static_cast<int>(from)) continue;
    if (static_cast<unsigned int>(fd) > from)
      ::close_range(from, static_cast<unsigned int>(fd) - 1, 0);
    from = static_cast<unsigned int>(fd) + 1;
  }
  ::close_range(from, ~0u, 0);
}

// Copies what the pipe holds now; false at end of file (every writer gone).
bool CopyOutput(int pipeFd, CToolLogCopy& log) {
  char buffer[4096];
  for (;;) {
    const ssize_t got = KORVEX_RETRY(::read(pipeFd, buffer, sizeof(buffer)));
    if (got <= 0) return got < 0;  // EAGAIN: more may come; 0: end of file
    log.Write(buffer, static_cast<std::size_t>(got));
  }
}

// The parent process id from /proc/<pid>/stat (the field after the state,
// which follows the last ')'), or -1.
pid_t ParentOf(int procFd, const char* pidText) {
  char path[40];
  std::size_t length = 0;
  while (pidText[length] != '\0' && length < 20) {
    path[length] = pidText[length];
    ++length;
  }
  const char leaf[] = "/stat";
  for (std::size_t i = 0; i < sizeof(leaf); ++i) path[length + i] = leaf[i];
  const korvex::CFd fd(::openat(procFd, path, O_RDONLY | O_CLOEXEC));
  if (!fd) return -1;
  char stat[512];
  const ssize_t got = KORVEX_RETRY(::read(fd.Get(), stat, sizeof(stat) - 1));
  if (got <= 0) return -1;
  const char* close = nullptr;
  for (ssize_t i = 0; i < got; ++i) {
    if (stat[i] == ')') close = stat + i;
  }
  if (close == nullptr || close + 4 >= stat + got) return -1;
  const char* digit = close + 4;  // ") S " then the parent's id
  pid_t parent = 0;
  while (digit < stat + got && *digit >= '0' && *digit <= '9')
    parent = parent * 10 + (*digit++ - '0');
  return parent;
}

bool Contains(const pid_t* set, std::size_t count, pid_t pid) {
  for (std::size_t i = 0; i < count; ++i) {
    if (set[i] == pid) return true;
  }
  return false;
}

struct CDirent64 {
  ino64_t m_Ino;
  off64_t m_Off;
  unsigned short m_RecLen;
  unsigned char m_Type;
  char m_Name[1];
};

// The number a /proc entry names, or 0 for an entry that is no process.
pid_t PidOf(const char* name) {
  if (*name < '1' || *name > '9') return 0;
  pid_t pid = 0;
  for (const char* c = name; *c >= '0' && *c <= '9'; ++c) pid = pid * 10 + (*c - '0');
  return pid;
}

// Adds to the tree the processes of one batch of /proc entries whose parent
// it holds already; true when any was added.
bool AddChildren(int procFd, const char* batch, long size, pid_t* tree, std::size_t& count) {
  bool added = false;
  for (long offset = 0; offset < size && count < kMaxTree;) {
    const CDirent64* entry = reinterpret_cast<const CDirent64*>(batch + offset);
    offset += entry->m_RecLen;
    const pid_t pid = PidOf(entry->m_Name);
    if (pid == 0 || Contains(tree, count, pid)) continue;
    if (!Contains(tree, count, ParentOf(procFd, entry->m_Name))) continue;
    tree[count++] = pid;
    added = true;
  }
  return added;
}

// One walk of /proc; true when it found new members of the tree.
bool WalkProc(int procFd, pid_t* tree, std::size_t& count) {
  ::lseek(procFd, 0, SEEK_SET);
  alignas(8) char buffer[8192];
  bool added = false;
  for (;;) {
    const long got = ::syscall(SYS_getdents64, procFd, buffer, sizeof(buffer));
    if (got <= 0) return added;
    if (AddChildren(procFd, buffer, got, tree, count)) added = true;
  }
}

// Without a namespace: every descendant of this process gets signo. The
// tree is collected first (walking /proc again while a walk finds new
// members: a process forked meanwhile has a parent found before), then
// signalled at once, like kill(-1) in a namespace: what the tree starts
// after that (a TERM trap's clean-up) is not hit by the same signal. Orphans
// of the tree are this process's children (it is their subreaper), so the
// tree stays connected.
void SignalDescendants(int signo) {
  const korvex::CFd procFd(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!procFd) return;
  pid_t tree[kMaxTree];
  std::size_t count = 0;
  tree[count++] = ::getpid();
  while (count < kMaxTree && WalkProc(procFd.Get(), tree, count)) {
  }
  for (std::size_t i = 1; i < count; ++i) ::kill(tree[i], signo);
}

void SignalTree(bool inNamespace, int signo) {
  if (inNamespace) {
    ::kill(-1, signo);  // from PID 1: every other process of the namespace
  } else {
    SignalDescendants(signo);
  }
}

[[noreturn]] void RunTool(const CTreeLaunch& launch, int outputFd, int execFd) {
  // A session of its own: no terminal, so keyboard signals and a hang-up
  // reach the tool only through its supervisor.
  ::setsid();
  ::dup2(outputFd, STDOUT_FILENO);
  ::dup2(outputFd, STDERR_FILENO);
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  for (int signo = 1; signo < NSIG; ++signo) ::sigaction(signo, &defaults, nullptr);
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  if (launch.m_WorkingDir != nullptr && *launch.m_WorkingDir != '\0' &&
      ::chdir(launch.m_WorkingDir) != 0) {
    const int error = errno;
    korvex::WriteAll(execFd, &error, sizeof(error));
    ::_exit(127);
  }
  char* const arguments[] = {const_cast<char*>(launch.m_Path), nullptr};
  ::execve(launch.m_Path, arguments, environ);
  const int error = errno;
  korvex::WriteAll(execFd, &error, sizeof(error));
  ::_exit(127);
}

// The supervisor's state while the tool runs.
struct CSupervision {
  bool m_Namespace = false;
  int m_ReportFd = -1;
  unsigned int m_GraceMs = 0;
  pid_t m_Tool = -1;
  bool m_Ending = false;
  bool m_Killed = false;
  std::int64_t m_KillAt = 0;
  CToolLogCopy* m_Log = nullptr;
  int m_OutputFd = -1;

  void StartEnding() {
    if (m_Ending) return;
    m_Ending = true;
    SignalTree(m_Namespace, SIGTERM);
    m_KillAt = NowMs() + m_GraceMs;
  }

  [[noreturn]] void Exit() {
    if (m_OutputFd >= 0) CopyOutput(m_OutputFd, *m_Log);
    ::_exit(0);
  }

  // Reaps every child that has ended; leaves when none is left.
  void Reap() {
    for (;;) {
      int status = 0;
      const pid_t pid = KORVEX_RETRY(::waitpid(-1, &status, WNOHANG));
      if (pid == 0) return;
      if (pid < 0) Exit();  // ECHILD: the whole tree is gone
      if (pid == m_Tool) {
        Report(m_ReportFd, kTreeToolEnded, status);
        m_Tool = -1;
        StartEnding();  // what it left behind
      }
    }
  }

  int PollTimeout() const {
    if (!m_Ending) return -1;
    if (m_Killed) return kRekillMs;
    const std::int64_t left = m_KillAt - NowMs();
    return left <= 0 ? 0 : static_cast<int>(left);
  }

  void Escalate() {
    if (!m_Ending || NowMs() < m_KillAt) return;
    m_Killed = true;
    SignalTree(m_Namespace, SIGKILL);
    // PID 1 leaving takes the rest of the namespace with it; the kernel
    // lets it go only once all of them are gone.
    if (m_Namespace) Exit();
  }
};

// The supervisor's own setup: its name, the subreaper role where it has no
// namespace, no descriptor but those it needs, /dev/null as its standard
// streams.
void PrepareSupervisor(const CTreeLaunch& launch, int reportFd, int lifelineFd, bool inNamespace) {
  ::prctl(PR_SET_NAME, "em-supervisor", 0, 0, 0);
  if (!inNamespace) ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  int keep[4] = {reportFd, lifelineFd, launch.m_LogFd, launch.m_LogDirFd};
  CloseAllExcept(keep);
  // Neither the supervisor nor the tool holds the host's standard streams:
  // a reader of the host's output sees its end when the host ends.
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) ::_exit(126);
  for (int fd = 0; fd < 3; ++fd) ::dup2(null, fd);
}

// Forks the tool and learns from the close-on-exec pipe whether its exec
// worked. Returns the tool's pid with the read end of its output in
// outputFd; a tool that could not be started is reported, and the
// supervisor ends.
pid_t StartTool(const CTreeLaunch& launch, int reportFd, int& outputFd) {
  int output[2];
  int exec[2];
  if (::pipe2(output, O_CLOEXEC) != 0 || ::pipe2(exec, O_CLOEXEC) != 0) {
    Report(reportFd, kTreeExecFailed, errno);
    ::_exit(127);
  }
  const pid_t tool = ::fork();
  if (tool == 0) RunTool(launch, output[1], exec[1]);
  const int forkError = errno;
  ::close(output[1]);
  ::close(exec[1]);
  int execError = 0;
  const ssize_t got = KORVEX_RETRY(::read(exec[0], &execError, sizeof(execError)));
  if (tool < 0 || got == static_cast<ssize_t>(sizeof(execError))) {
    Report(reportFd, kTreeExecFailed, tool < 0 ? forkError : execError);
    ::_exit(127);  // the failed child is reaped with the namespace or by our reaper
  }
  ::close(exec[0]);
  ::fcntl(output[0], F_SETFL, O_NONBLOCK);  // only the read end: the tool writes blocking
  Report(reportFd, kTreeStarted, static_cast<int>(tool));
  outputFd = output[0];
  return tool;
}

// Copies the tool's output, notices the host's end and SIGTERM, reaps and
// ends the tree, until the whole tree is gone (Reap and Escalate exit).
[[noreturn]] void Supervise(CSupervision& run, int signalFd, int lifelineFd) {
  pollfd fds[3] = {{signalFd, POLLIN, 0}, {lifelineFd, POLLIN, 0}, {run.m_OutputFd, POLLIN, 0}};
  for (;;) {
    ::poll(fds, 3, run.PollTimeout());
    if (fds[2].revents != 0 && !CopyOutput(run.m_OutputFd, *run.m_Log)) {
      fds[2].fd = -1;
      ::close(run.m_OutputFd);
      run.m_OutputFd = -1;
    }
    if (fds[1].revents != 0) {  // the host process has gone
      fds[1].fd = -1;
      run.StartEnding();
    }
    signalfd_siginfo info;
    while (::read(signalFd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
      if (info.ssi_signo == SIGTERM) run.StartEnding();
    }
    run.Reap();
    if (run.m_Killed && !run.m_Namespace) SignalTree(false, SIGKILL);
    run.Escalate();
  }
}

[[noreturn]] void RunSupervisor(const CTreeLaunch& launch, int reportFd, int lifelineFd,
                                bool inNamespace) {
  PrepareSupervisor(launch, reportFd, lifelineFd, inNamespace);
  sigset_t handled;
  sigemptyset(&handled);
  sigaddset(&handled, SIGCHLD);
  sigaddset(&handled, SIGTERM);
  const int signalFd = ::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signalFd < 0) {
    Report(reportFd, kTreeExecFailed, errno);
    ::_exit(127);
  }
  CSupervision run;
  run.m_Namespace = inNamespace;
  run.m_ReportFd = reportFd;
  run.m_GraceMs = launch.m_GraceMs;
  run.m_Tool = StartTool(launch, reportFd, run.m_OutputFd);
  struct stat logStatus {};
  std::size_t logSize = 0;
  if (launch.m_LogFd >= 0 && ::fstat(launch.m_LogFd, &logStatus) == 0) {
    logSize = static_cast<std::size_t>(logStatus.st_size);
  }
  CToolLogCopy log(launch.m_LogFd, launch.m_LogDirFd, launch.m_LogName, launch.m_LogOldName,
                   launch.m_LogHalfBytes, logSize);
  run.m_Log = &log;
  Supervise(run, signalFd, lifelineFd);
}

}  // namespace

bool StartSupervisor(const CTreeLaunch& launch, CTreeChild& child, int* error) {
  const auto fail = [error](int code) {
    if (error != nullptr) *error = code;
    return false;
  };
  korvex::CPipeEnds report;
  korvex::CPipeEnds lifeline;
  if (!korvex::OpenPipe(report) || !korvex::OpenPipe(lifeline)) return fail(errno);
  const bool inNamespace = launch.m_TryNamespace && ::unshare(CLONE_NEWPID) == 0;
  const pid_t pid = ::fork();
  // The supervisor never returns (it ends in _exit), so no destructor of
  // this frame runs in it.
  if (pid == 0) RunSupervisor(launch, report.m_Write.Get(), lifeline.m_Read.Get(), inNamespace);
  if (pid < 0) return fail(errno);
  child.m_Pid = pid;
  child.m_ReportFd = std::move(report.m_Read);
  child.m_LifelineFd = std::move(lifeline.m_Write);
  child.m_Namespace = inNamespace;
  return true;
}

bool ReadTreeReport(int reportFd, CTreeReport& report) {
  return korvex::ReadExactly(reportFd, &report, sizeof(report));
}

}  // namespace halvane
