// Child processes on pipes, shared by the test suites and the benchmarks.
#include "tests/support/ChildProcess.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace korvex_test {

namespace {

using Clock = std::chrono::steady_clock;

int ExitOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int MillisecondsLeft(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<long long>(0, left.count()));
}

struct CPipe {
  korvex::CFd m_Read;
  korvex::CFd m_Write;
  CPipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    m_Read.Reset(fds[0]);
    m_Write.Reset(fds[1]);
  }
};

// The inherited environment with extra entries ("NAME=value") replacing
// those of the same name.
std::vector<std::string> Environment(const std::vector<std::string>& extra) {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
  for (const std::string& added : extra) {
    const std::string name = added.substr(0, added.find('=') + 1);
    environment.erase(std::remove_if(environment.begin(), environment.end(),
                                     [&](const std::string& e) { return e.rfind(name, 0) == 0; }),
                      environment.end());
    environment.push_back(added);
  }
  return environment;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  for (std::string& s : strings) pointers.push_back(s.data());
  pointers.push_back(nullptr);
  return pointers;
}

// posix_spawn's attributes and file actions, destroyed with the object.
class CSpawnSetup {
 public:
  CSpawnSetup() {
    posix_spawn_file_actions_init(&m_Actions);
    posix_spawnattr_init(&m_Attributes);
  }
  ~CSpawnSetup() {
    posix_spawn_file_actions_destroy(&m_Actions);
    posix_spawnattr_destroy(&m_Attributes);
  }
  CSpawnSetup(const CSpawnSetup&) = delete;
  CSpawnSetup& operator=(const CSpawnSetup&) = delete;

  // The test process may have blocked or ignored signals; the child starts
  // clean.
  void CleanSignals(bool ownGroup) {
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&m_Attributes, &none);
    sigset_t defaults;
    sigfillset(&defaults);
    posix_spawnattr_setsigdefault(&m_Attributes, &defaults);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (ownGroup) {
      posix_spawnattr_setpgroup(&m_Attributes, 0);
      flags |= POSIX_SPAWN_SETPGROUP;
    }
    posix_spawnattr_setflags(&m_Attributes, flags);
  }
  void Streams(int in, int out, int err, const CChildOptions& options) {
    posix_spawn_file_actions_adddup2(&m_Actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&m_Actions, out, STDOUT_FILENO);
    if (options.m_ErrorFile.empty()) {
      posix_spawn_file_actions_adddup2(&m_Actions, err, STDERR_FILENO);
    } else {
      posix_spawn_file_actions_addopen(&m_Actions, STDERR_FILENO, options.m_ErrorFile.c_str(),
                                       O_WRONLY | O_CREAT | O_APPEND, 0644);
    }
    if (!options.m_WorkingDir.empty()) {
      posix_spawn_file_actions_addchdir_np(&m_Actions, options.m_WorkingDir.c_str());
    }
  }
  int Spawn(pid_t& pid, std::vector<std::string> argv, std::vector<std::string> environment) {
    std::vector<char*> args = Pointers(argv);
    std::vector<char*> env = Pointers(environment);
    return ::posix_spawn(&pid, args[0], &m_Actions, &m_Attributes, args.data(), env.data());
  }

 private:
  posix_spawn_file_actions_t m_Actions;
  posix_spawnattr_t m_Attributes;
};

}  // namespace

CChildProcess::CChildProcess(const std::vector<std::string>& argv,
                             const std::vector<std::string>& extraEnv, const CChildOptions& options)
    : m_OwnGroup(options.m_OwnGroup) {
  // A child that ends before it has read all its input must not take the
  // test down with SIGPIPE; the write then fails with EPIPE instead.
  static const bool ignored = (std::signal(SIGPIPE, SIG_IGN), true);
  (void)ignored;
  if (argv.empty()) throw std::runtime_error("no program to start");
  CPipe in, out, err;
  CSpawnSetup setup;
  setup.CleanSignals(options.m_OwnGroup);
  setup.Streams(in.m_Read.Get(), out.m_Write.Get(), err.m_Write.Get(), options);
  const int spawned = setup.Spawn(m_Pid, argv, Environment(extraEnv));
  if (spawned != 0) {
    m_Pid = -1;
    throw std::runtime_error("posix_spawn " + argv[0] + ": " + std::strerror(spawned));
  }
  m_In = std::move(in.m_Write);
  m_OutFd = std::move(out.m_Read);
  if (options.m_ErrorFile.empty()) m_ErrFd = std::move(err.m_Read);
}

CChildProcess::~CChildProcess() {
  if (m_Pid <= 0) return;
  Kill();
  Reap(0);
}

void CChildProcess::Kill() {
  if (m_Pid <= 0) return;
  if (m_OwnGroup) ::kill(-m_Pid, SIGKILL);
  ::kill(m_Pid, SIGKILL);
}

// True when the child has been reaped (now or before); its status is kept.
bool CChildProcess::Reap(int options) {
  if (m_Pid <= 0) return true;
  int status = 0;
  const pid_t done = KORVEX_RETRY(::waitpid(m_Pid, &status, options));
  if (done != m_Pid) return false;
  m_Status = status;
  m_Pid = -1;
  return true;
}

bool CChildProcess::Write(const std::string& text) {
  std::size_t done = 0;
  while (done < text.size() && m_In.Valid()) {
    pollfd fd = {m_In.Get(), POLLOUT, 0};
    ::poll(&fd, 1, 100);
    if ((fd.revents & POLLOUT) != 0) {
      const std::size_t chunk = std::min<std::size_t>(text.size() - done, 65536);
      const ssize_t written = ::write(m_In.Get(), text.data() + done, chunk);
      if (written < 0 && errno != EINTR && errno != EAGAIN) return false;
      if (written > 0) done += static_cast<std::size_t>(written);
    } else if ((fd.revents & (POLLERR | POLLHUP)) != 0) {
      return false;  // the child stopped reading; its output tells why
    }
    Pump(0);
  }
  return done == text.size();
}

bool CChildProcess::WriteOnly(const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written =
        KORVEX_RETRY(::write(m_In.Get(), text.data() + done, text.size() - done));
    if (written <= 0) return false;
    done += static_cast<std::size_t>(written);
  }
  return true;
}

void CChildProcess::Pump(int waitMs) {
  pollfd fds[2] = {{m_OutFd.Get(), POLLIN, 0}, {m_ErrFd.Get(), POLLIN, 0}};
  if (::poll(fds, 2, waitMs) <= 0) return;
  char buffer[65536];
  for (int i = 0; i < 2; ++i) {
    if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    korvex::CFd& fd = i == 0 ? m_OutFd : m_ErrFd;
    const ssize_t got = ::read(fd.Get(), buffer, sizeof(buffer));
    if (got > 0) {
      (i == 0 ? m_Out : m_Err).append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
      fd.Reset();
    }
  }
}

std::vector<std::string> CChildProcess::OutputLines() const {
  std::vector<std::string> lines = Lines(m_Out);
  // A line counts once it is complete.
  if (!lines.empty() && !m_Out.empty() && m_Out.back() != '\n') lines.pop_back();
  return lines;
}

bool CChildProcess::WaitForLine(const std::function<bool(const std::string&)>& predicate,
                                std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    const std::vector<std::string> lines = OutputLines();
    if (std::any_of(lines.begin(), lines.end(), predicate)) return true;
    if (Clock::now() >= deadline) return false;
    if (PipesOpen()) {
      Pump(std::min(50, MillisecondsLeft(deadline)));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
}

bool CChildProcess::WaitForLineContaining(const std::string& text,
                                          std::chrono::milliseconds timeout) {
  return WaitForLine([&](const std::string& line) { return line.find(text) != std::string::npos; },
                     timeout);
}

bool CChildProcess::ReadLines(long lines, int timeoutMs, std::string* text) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::size_t end = 0;
  long found = 0;
  for (;;) {
    for (std::size_t at; found < lines && (at = m_Out.find('\n', end)) != std::string::npos;) {
      end = at + 1;
      ++found;
    }
    if (found >= lines || !m_OutFd.Valid() || Clock::now() >= deadline) break;
    Pump(std::max(1, MillisecondsLeft(deadline)));
  }
  const std::size_t taken = found >= lines ? end : m_Out.size();
  if (text != nullptr) text->append(m_Out, 0, taken);
  m_Out.erase(0, taken);
  return found >= lines;
}

int CChildProcess::WaitForExit(std::chrono::milliseconds timeout) {
  if (m_Pid <= 0) return -1;
  const auto deadline = Clock::now() + timeout;
  while (!Reap(WNOHANG)) {
    if (Clock::now() >= deadline) return -1;
    if (PipesOpen()) {
      Pump(20);
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  // What the child wrote before it exited; a pipe still held open by a
  // left-over process gives no end of file, so only what is there.
  for (int i = 0; i < 20 && PipesOpen(); ++i) Pump(10);
  return ExitOf(m_Status);
}

CFinished CChildProcess::Finish(int timeoutSec) {
  CloseInput();
  const auto deadline = Clock::now() + std::chrono::seconds(timeoutSec);
  Clock::time_point exited{};
  // To the end of both pipes; a descendant that keeps them open after the
  // child's exit gets two seconds, a child past the deadline is killed.
  while (PipesOpen()) {
    if (m_Pid > 0 && Clock::now() > deadline) Kill();
    if (exited == Clock::time_point{} && Reap(WNOHANG)) exited = Clock::now();
    if (exited != Clock::time_point{} && Clock::now() - exited > std::chrono::seconds(2)) break;
    Pump(200);
  }
  Reap(0);
  CFinished finished;
  finished.m_Exit = ExitOf(m_Status);
  finished.m_Out = m_Out;
  finished.m_Err = m_Err;
  return finished;
}

CFinished RunProgram(const std::vector<std::string>& argv, const std::string& input,
                     const std::vector<std::string>& extraEnv, int timeoutSec) {
  CChildProcess child(argv, extraEnv);
  if (!input.empty()) child.Write(input);
  return child.Finish(timeoutSec);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace korvex_test
