// Child processes on pipes for the end-to-end tests.
#include "tests/emhost/EmHostProcess.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

void MakePipe(int fds[2]) {
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
}

int ExitOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

CChildProcess::CChildProcess(const std::vector<std::string>& argv,
                             const std::vector<std::string>& extraEnv) {
  // A child that ends before it has read all its input must not take the
  // test down with SIGPIPE; the write then fails with EPIPE instead.
  static const bool ignored = (std::signal(SIGPIPE, SIG_IGN), true);
  (void)ignored;
  int in[2], out[2], err[2];
  MakePipe(in);
  MakePipe(out);
  MakePipe(err);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  // The test process may have blocked signals; the child starts clean.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; ++e) envStrings.emplace_back(*e);
  for (const std::string& e : extraEnv) envStrings.push_back(e);
  std::vector<char*> env;
  for (const std::string& e : envStrings) env.push_back(const_cast<char*>(e.c_str()));
  env.push_back(nullptr);

  const int spawned =
      ::posix_spawn(&m_Pid, args[0], &actions, &attributes, args.data(), env.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  m_In = in[1];
  m_OutFd = out[0];
  m_ErrFd = err[0];
  if (spawned != 0) {
    m_Pid = -1;
    throw std::runtime_error("posix_spawn " + argv[0] + ": " + std::strerror(spawned));
  }
}

CChildProcess::~CChildProcess() {
  if (m_Pid > 0) {
    ::kill(m_Pid, SIGKILL);
    int status;
    ::waitpid(m_Pid, &status, 0);
  }
  for (int fd : {m_In, m_OutFd, m_ErrFd}) {
    if (fd >= 0) ::close(fd);
  }
}

void CChildProcess::Write(const std::string& text) {
  const char* data = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    // Large inputs: keep reading the output meanwhile so neither side blocks.
    pollfd fd = {m_In, POLLOUT, 0};
    ::poll(&fd, 1, 100);
    if ((fd.revents & POLLOUT) != 0) {
      const ssize_t done = ::write(m_In, data, std::min<std::size_t>(left, 65536));
      if (done < 0) {
        if (errno == EINTR || errno == EAGAIN) continue;
        if (errno == EPIPE) return;  // the child stopped reading; Finish tells why
        throw std::runtime_error(std::string("write to child: ") + std::strerror(errno));
      }
      data += done;
      left -= static_cast<std::size_t>(done);
    }
    Pump(0);
  }
}

void CChildProcess::CloseInput() {
  if (m_In >= 0) ::close(m_In);
  m_In = -1;
}

void CChildProcess::Pump(int waitMs) {
  pollfd fds[2] = {{m_OutFd, POLLIN, 0}, {m_ErrFd, POLLIN, 0}};
  if (::poll(fds, 2, waitMs) <= 0) return;
  char buffer[65536];
  for (int i = 0; i < 2; ++i) {
    if ((fds[i].revents & (POLLIN | POLLHUP)) == 0 || fds[i].fd < 0) continue;
    const ssize_t got = ::read(fds[i].fd, buffer, sizeof(buffer));
    if (got > 0) (i == 0 ? m_Out : m_Err).append(buffer, static_cast<std::size_t>(got));
  }
}

CFinished CChildProcess::Finish(int timeoutSec) {
  CloseInput();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSec);
  bool killed = false;
  char buffer[65536];
  while (m_OutFd >= 0 || m_ErrFd >= 0) {
    if (!killed && std::chrono::steady_clock::now() > deadline) {
      ::kill(m_Pid, SIGKILL);
      killed = true;
    }
    pollfd fds[2] = {{m_OutFd, POLLIN, 0}, {m_ErrFd, POLLIN, 0}};
    if (::poll(fds, 2, 200) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      const ssize_t got = ::read(fds[i].fd, buffer, sizeof(buffer));
      if (got > 0) {
        (i == 0 ? m_Out : m_Err).append(buffer, static_cast<std::size_t>(got));
      } else if (got == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        (i == 0 ? m_OutFd : m_ErrFd) = -1;
      }
    }
  }
  int status = 0;
  ::waitpid(m_Pid, &status, 0);
  m_Pid = -1;
  CFinished finished;
  finished.m_Exit = ExitOf(status);
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
