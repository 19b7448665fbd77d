// Helpers of the hardening suites: scratch areas, fake tools, tree
// snapshots, process lookups and em-host on pipes.
#include "tests/hardening/HardeningSupport.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace hardening {

namespace {

int ExitOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

void SnapshotInto(const std::string& root, const std::string& relative,
                  std::map<std::string, CNode>& out) {
  const std::string path = relative == "." ? root : root + "/" + relative;
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return;
  CNode node;
  node.m_Size = static_cast<long long>(info.st_size);
  node.m_Mode = static_cast<unsigned int>(info.st_mode);
  node.m_MtimeNs =
      static_cast<long long>(info.st_mtim.tv_sec) * 1000000000LL + info.st_mtim.tv_nsec;
  node.m_Inode = static_cast<unsigned long long>(info.st_ino);
  if (S_ISREG(info.st_mode)) {
    node.m_Type = 'f';
  } else if (S_ISDIR(info.st_mode)) {
    node.m_Type = 'd';
  } else if (S_ISLNK(info.st_mode)) {
    node.m_Type = 'l';
    char target[4096];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof(target));
    if (length > 0) node.m_Link.assign(target, static_cast<std::size_t>(length));
  } else {
    node.m_Type = 'o';
  }
  out[relative] = node;
  if (node.m_Type != 'd') return;
  DIR* listing = ::opendir(path.c_str());
  if (listing == nullptr) return;
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(listing);
  for (const std::string& name : names) {
    SnapshotInto(root, relative == "." ? name : relative + "/" + name, out);
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Files

CScratch::CScratch() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korvex-hardening.XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  m_Path = buffer.data();
}

CScratch::~CScratch() {
  for (auto it = m_Mounts.rbegin(); it != m_Mounts.rend(); ++it) {
    ::umount2(it->c_str(), MNT_DETACH);
  }
  RemoveTree(m_Path);
}

std::string CScratch::Dir(const std::string& relative) const {
  std::string path = m_Path;
  std::size_t start = 0;
  while (start <= relative.size()) {
    const std::size_t slash = relative.find('/', start);
    const std::string part =
        relative.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    if (!part.empty()) {
      path += "/" + part;
      ::mkdir(path.c_str(), 0755);
    }
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return path;
}

void WriteFile(const std::string& path, const std::string& content, mode_t mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out << content;
  }
  ::chmod(path.c_str(), mode);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool Exists(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0;
}

void WriteScript(const std::string& path, const std::string& body) {
  // Written under another name and renamed: a script that is still open for
  // writing cannot be executed (ETXTBSY) by a tool started meanwhile.
  const std::string temporary = path + ".new";
  WriteFile(temporary, "#!/bin/sh\n" + body + "\n", 0755);
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot rename to " + path);
  }
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

void RemoveTree(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return;
  if (S_ISDIR(info.st_mode)) {
    ::chmod(path.c_str(), 0755);  // a directory made read-only by a test
    if (DIR* listing = ::opendir(path.c_str())) {
      std::vector<std::string> names;
      while (const dirent* entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
      }
      ::closedir(listing);
      for (const std::string& name : names) RemoveTree(path + "/" + name);
    }
    ::rmdir(path.c_str());
  } else {
    ::unlink(path.c_str());
  }
}

// ---------------------------------------------------------------------------
// Processes

std::vector<pid_t> ProcessesNamed(const std::string& name, const std::string& under) {
  std::vector<pid_t> found;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return found;
  while (const dirent* entry = ::readdir(proc)) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (pid <= 0 || *end != '\0') continue;
    const std::string base = std::string("/proc/") + entry->d_name;
    std::string comm = ReadFile(base + "/comm");
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    if (comm != name.substr(0, 15)) continue;
    const std::string stat = ReadFile(base + "/stat");
    const std::size_t paren = stat.rfind(')');
    if (paren == std::string::npos || paren + 2 >= stat.size()) continue;
    const char state = stat[paren + 2];
    if (state == 'Z' || state == 'X' || state == 'x') continue;
    if (!under.empty() && ReadFile(base + "/cmdline").find(under) == std::string::npos) continue;
    found.push_back(static_cast<pid_t>(pid));
  }
  ::closedir(proc);
  return found;
}

bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (predicate()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

bool WaitUntilNoneNamed(const std::string& name, std::chrono::milliseconds timeout,
                        const std::string& under) {
  return WaitUntil([&] { return ProcessesNamed(name, under).empty(); }, timeout);
}

void KillAllNamed(const std::string& name, const std::string& under) {
  if (under.empty()) return;
  for (const pid_t pid : ProcessesNamed(name, under)) ::kill(pid, SIGKILL);
}

// ---------------------------------------------------------------------------
// Snapshots

std::map<std::string, CNode> Snapshot(const std::string& root) {
  std::map<std::string, CNode> out;
  SnapshotInto(root, ".", out);
  return out;
}

std::vector<std::string> Differences(const std::map<std::string, CNode>& before,
                                     const std::map<std::string, CNode>& after) {
  std::vector<std::string> lines;
  for (const auto& entry : before) {
    const auto found = after.find(entry.first);
    if (found == after.end()) {
      lines.push_back("- " + entry.first);
    } else if (found->second != entry.second) {
      lines.push_back("~ " + entry.first);
    }
  }
  for (const auto& entry : after) {
    if (before.find(entry.first) == before.end()) lines.push_back("+ " + entry.first);
  }
  return lines;
}

// ---------------------------------------------------------------------------
// em-host

std::string EmHostBinary() { return EMHOST_BIN; }

CEmHost::CEmHost(const std::vector<std::string>& arguments, const std::string& workingDir,
                 const std::string& program) {
  static const bool ignored = (std::signal(SIGPIPE, SIG_IGN), true);
  (void)ignored;
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2 failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  if (!workingDir.empty()) posix_spawn_file_actions_addchdir_np(&actions, workingDir.c_str());
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  sigset_t defaults;
  sigfillset(&defaults);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

  std::vector<std::string> argv{program.empty() ? EmHostBinary() : program};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int spawned = ::posix_spawn(&m_Pid, args[0], &actions, &attributes, args.data(), environ);
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
    throw std::runtime_error(std::string("posix_spawn em-host: ") + std::strerror(spawned));
  }
}

CEmHost::~CEmHost() {
  if (m_Pid > 0 && !m_Reaped) {
    ::kill(-m_Pid, SIGKILL);
    ::kill(m_Pid, SIGKILL);
    int status = 0;
    ::waitpid(m_Pid, &status, 0);
  }
  for (int fd : {m_In, m_OutFd, m_ErrFd}) {
    if (fd >= 0) ::close(fd);
  }
}

void CEmHost::Send(const std::string& line) {
  const std::string text = line + "\n";
  std::size_t done = 0;
  while (done < text.size() && m_In >= 0) {
    pollfd fd = {m_In, POLLOUT, 0};
    ::poll(&fd, 1, 100);
    if ((fd.revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
      const ssize_t written = ::write(m_In, text.data() + done, text.size() - done);
      if (written < 0) {
        if (errno == EINTR || errno == EAGAIN) continue;
        return;  // em-host stopped reading; the test sees why in its output
      }
      done += static_cast<std::size_t>(written);
    }
    Pump(0);
  }
}

void CEmHost::CloseInput() {
  if (m_In >= 0) ::close(m_In);
  m_In = -1;
}

void CEmHost::Pump(int waitMs) {
  pollfd fds[2] = {{m_OutFd, POLLIN, 0}, {m_ErrFd, POLLIN, 0}};
  if (::poll(fds, 2, waitMs) <= 0) return;
  char buffer[65536];
  for (int i = 0; i < 2; ++i) {
    if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
    const ssize_t got = ::read(fds[i].fd, buffer, sizeof(buffer));
    if (got > 0) {
      (i == 0 ? m_Out : m_Err).append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0) {
      ::close(fds[i].fd);
      (i == 0 ? m_OutFd : m_ErrFd) = -1;
    }
  }
}

std::vector<std::string> CEmHost::OutputLines() const {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = m_Out.find('\n', start);
    if (end == std::string::npos) break;  // a line counts once it is complete
    lines.push_back(m_Out.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

bool CEmHost::WaitForLine(const std::function<bool(const std::string&)>& predicate,
                          std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    for (const std::string& line : OutputLines()) {
      if (predicate(line)) return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    if (m_OutFd < 0 && m_ErrFd < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } else {
      Pump(50);
    }
  }
}

bool CEmHost::WaitForLineContaining(const std::string& text, std::chrono::milliseconds timeout) {
  return WaitForLine([&](const std::string& line) { return line.find(text) != std::string::npos; },
                     timeout);
}

int CEmHost::WaitForExit(std::chrono::milliseconds timeout) {
  if (m_Reaped) return -1;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(m_Pid, &status, WNOHANG);
    if (done == m_Pid) {
      m_Reaped = true;
      // What em-host wrote before it exited; a pipe still held open by a
      // left-over process gives no end of file, so only what is there.
      for (int i = 0; i < 20 && (m_OutFd >= 0 || m_ErrFd >= 0); ++i) Pump(10);
      return ExitOf(status);
    }
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    if (m_OutFd < 0 && m_ErrFd < 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } else {
      Pump(20);
    }
  }
}

CResult RunEmHost(const std::vector<std::string>& arguments, std::chrono::milliseconds timeout,
                  const std::string& workingDir) {
  const auto start = std::chrono::steady_clock::now();
  CEmHost host(arguments, workingDir);
  host.CloseInput();
  CResult result;
  result.m_Exit = host.WaitForExit(timeout);
  result.m_Seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  result.m_Out = host.Output();
  result.m_Err = host.Errors();
  return result;
}

}  // namespace hardening
