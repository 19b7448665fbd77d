// The benchmarks' shared helpers: clock, statistics, scratch directories,
// the tool's installation, requests, the loaded plug-in and child processes.
#include "bench/BenchSupport.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "frame/ModuleEntry.h"
#include "host/HostControl.h"

extern char** environ;

namespace korvex_bench {

std::int64_t NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void SleepNs(std::int64_t ns) {
  timespec wait{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
  while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {
  }
}

double Percentile(std::vector<std::int64_t> samples, double percent) {
  if (samples.empty()) return 0.0;
  std::sort(samples.begin(), samples.end());
  double rank = std::ceil(percent / 100.0 * static_cast<double>(samples.size()));
  if (rank < 1.0) rank = 1.0;
  const std::size_t index = static_cast<std::size_t>(rank) - 1;
  return static_cast<double>(samples[std::min(index, samples.size() - 1)]);
}

long EnvNumber(const char* name, long fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  return (*end == '\0' && value > 0) ? value : fallback;
}

namespace {

// KORVEX_BENCH_DIR names a copied build (its bin/ and lib/) to measure
// instead of the one this program was built in, e.g. an older commit's.
const char* Built(const char* builtPath, const char* relative, std::string& storage) {
  const char* dir = std::getenv("KORVEX_BENCH_DIR");
  if (dir == nullptr || *dir == '\0') return builtPath;
  if (storage.empty()) storage = std::string(dir) + "/" + relative;
  return storage.c_str();
}

}  // namespace

const char* PluginPath() {
  static std::string path;
  return Built(KORVEX_BENCH_PLUGIN, "lib/libEM_KORVEX.so", path);
}
const char* EmHostPath() {
  static std::string path;
  return Built(KORVEX_BENCH_EMHOST, "bin/em-host", path);
}
const char* ToolPath() {
  static std::string path;
  return Built(KORVEX_BENCH_TOOL, "bin/korvex_bench_tool", path);
}

// ---------------------------------------------------------------------------

CScratchDir::CScratchDir(const char* what) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/korvex-bench-" + what + "-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) != nullptr) m_Path = buffer.data();
}

CScratchDir::~CScratchDir() {
  if (m_Path.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(m_Path, ignored);
}

bool InstallTool(const std::string& dir, std::string* error) {
  // Written through a close-on-exec descriptor and closed before anybody
  // runs it: a copy still open for writing in some child cannot be executed.
  const std::string target = dir + "/Korvex";
  std::ifstream in(ToolPath(), std::ios::binary);
  if (!in) {
    if (error != nullptr) *error = std::string(ToolPath()) + ": cannot read the tool";
    return false;
  }
  const std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
  if (fd < 0) {
    if (error != nullptr) *error = target + ": " + std::strerror(errno);
    return false;
  }
  const char* data = content.data();
  std::size_t left = content.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, data, left);
    if (written <= 0) {
      if (written < 0 && errno == EINTR) continue;
      ::close(fd);
      if (error != nullptr) *error = target + ": short write";
      return false;
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  ::fchmod(fd, 0755);
  ::close(fd);
  return true;
}

// ---------------------------------------------------------------------------

std::string RequestText(unsigned int opcode) {
  std::string command = "{\"OC\":" + std::to_string(opcode) +
                        ",\"OE\":0,\"OI\":0,\"MI\":65537,\"CA\":4294967295";
  if (opcode == kOpcodeCreate) command += ",\"TO\":600";
  return "{\"SIP\":{\"V\":1,\"CMD\":[" + command + "}]}}";
}

bool LoadRequest(SipJson& message, const std::string& text, unsigned long tag) {
  if (!message.FromJson(text.data(), text.size())) return false;
  message.m_CmdIndex = 0;
  const std::string extra = "em-host:" + std::to_string(tag);
  std::free(message.m_pszExtra);
  message.m_pszExtra = ::strdup(extra.c_str());
  return true;
}

// ---------------------------------------------------------------------------

CBenchSwitch::CBenchSwitch() { sem_init(&m_Replies, 0, 0); }

CBenchSwitch::~CBenchSwitch() { sem_destroy(&m_Replies); }

int CBenchSwitch::SendReply(CIExtensionModule* /*sender*/, SipJson& message) {
  // Stamped first: the benchmark measures up to the moment the switch has
  // the answer in its hands.
  const std::int64_t now = NowNs();
  m_Status = message.Status();
  m_StampNs = now;
  sem_post(&m_Replies);  // publishes the two fields to the waiter
  return 1;
}

bool CBenchSwitch::WaitReply(unsigned int timeoutMs, std::int64_t& stampNs,
                             unsigned int& status) {
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000u);
  deadline.tv_nsec += static_cast<long>(timeoutMs % 1000u) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  int rc;
  do {
    rc = sem_timedwait(&m_Replies, &deadline);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return false;
  stampNs = m_StampNs;
  status = m_Status;
  return true;
}

// ---------------------------------------------------------------------------

namespace {
CPluginModule* g_Plugin = nullptr;
}

CPluginModule& CPluginModule::Instance() {
  if (g_Plugin == nullptr) g_Plugin = new CPluginModule();
  return *g_Plugin;
}

void CPluginModule::Shutdown() {
  delete g_Plugin;
  g_Plugin = nullptr;
}

CPluginModule::CPluginModule() : m_Dir("root") {
  int fds[2];
  if (!m_Dir.Ok()) {
    m_Error = "cannot make a scratch directory";
    return;
  }
  std::string error;
  if (!InstallTool(m_Dir.Path(), &error)) {
    m_Error = error;
    return;
  }
  // The read end is ours alone; the write end is inherited by every child,
  // the module's tool among them, which stamps its exit into it.
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    m_Error = std::string("pipe: ") + std::strerror(errno);
    return;
  }
  m_StampRead = fds[0];
  m_StampWrite = fds[1];
  ::fcntl(m_StampRead, F_SETFL, O_NONBLOCK);
  ::fcntl(m_StampWrite, F_SETFD, 0);
  ::setenv("KORVEX_BENCH_STAMP_FD", std::to_string(m_StampWrite).c_str(), 1);

  halvane::ClearRegistry();
  halvane::SetRegistryValue(halvane::ProductRootKey("Korvex") + "\\Setup", "FileRoot",
                            m_Dir.Path());

  m_Library = ::dlopen(PluginPath(), RTLD_NOW | RTLD_LOCAL);
  if (m_Library == nullptr) {
    m_Error = std::string(PluginPath()) + ": " + ::dlerror();
    return;
  }
  const auto create = reinterpret_cast<EM_CreateFn>(::dlsym(m_Library, "EM_Create"));
  m_Delete = reinterpret_cast<EM_DeleteFn>(::dlsym(m_Library, "EM_Delete"));
  void* module = nullptr;
  if (create == nullptr || m_Delete == nullptr || create(&module) != 1 || module == nullptr) {
    m_Error = "EM_Create failed";
    return;
  }
  CIExtensionModule* instance = static_cast<CIExtensionModule*>(module);
  instance->SetServerCabinetNumber(0);
  if (instance->Start(&m_Switch, 0x00010001u) != 1) {
    m_Error = "Start did not find the tool";
    m_Delete(nullptr);
    return;
  }
  m_Module = instance;
}

CPluginModule::~CPluginModule() { Close(); }

void CPluginModule::Close() {
  if (m_Module != nullptr) {
    m_Module->Stop();
    m_Delete(nullptr);
    m_Module = nullptr;
  }
  // The library stays loaded, as a host keeps it: its worker has ended, but
  // nothing is gained by unmapping code at exit.
  if (m_StampRead >= 0) ::close(m_StampRead);
  if (m_StampWrite >= 0) ::close(m_StampWrite);
  m_StampRead = m_StampWrite = -1;
  ::unsetenv("KORVEX_BENCH_STAMP_FD");
}

bool CPluginModule::ReadStamp(std::int64_t& stampNs, int timeoutMs) {
  const std::int64_t deadline = NowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000LL;
  for (;;) {
    const ssize_t got = ::read(m_StampRead, &stampNs, sizeof(stampNs));
    if (got == static_cast<ssize_t>(sizeof(stampNs))) return true;
    if (got < 0 && errno != EAGAIN && errno != EINTR) return false;
    const std::int64_t left = deadline - NowNs();
    if (left <= 0) return false;
    pollfd descriptor{m_StampRead, POLLIN, 0};
    ::poll(&descriptor, 1, static_cast<int>(left / 1000000LL) + 1);
  }
}

void CPluginModule::DrainStamps() {
  std::int64_t stamp;
  while (::read(m_StampRead, &stamp, sizeof(stamp)) > 0) {
  }
}

// ---------------------------------------------------------------------------

CChild::CChild(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
               const std::string& errPath) {
  int in[2];
  int out[2];
  if (::pipe2(in, O_CLOEXEC) != 0) return;
  if (::pipe2(out, O_CLOEXEC) != 0) {
    ::close(in[0]);
    ::close(in[1]);
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO,
                                   errPath.empty() ? "/dev/null" : errPath.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);

  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
  for (const std::string& extra : extraEnv) {
    const std::string name = extra.substr(0, extra.find('=') + 1);
    environment.erase(std::remove_if(environment.begin(), environment.end(),
                                     [&](const std::string& e) { return e.rfind(name, 0) == 0; }),
                      environment.end());
    environment.push_back(extra);
  }
  std::vector<char*> envp;
  for (std::string& e : environment) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<std::string> args(argv);
  std::vector<char*> argp;
  for (std::string& a : args) argp.push_back(a.data());
  argp.push_back(nullptr);

  pid_t pid = -1;
  const int rc = posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  if (rc != 0) {
    ::close(in[1]);
    ::close(out[0]);
    return;
  }
  m_Pid = pid;
  m_In = in[1];
  m_Out = out[0];
}

CChild::~CChild() {
  if (m_Pid > 0) {
    ::kill(m_Pid, SIGKILL);
    ::waitpid(m_Pid, nullptr, 0);
  }
  if (m_In >= 0) ::close(m_In);
  if (m_Out >= 0) ::close(m_Out);
}

bool CChild::Write(const std::string& text) {
  const char* data = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    const ssize_t written = ::write(m_In, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

bool CChild::ReadLines(long lines, int timeoutMs, std::string* text) {
  const std::int64_t deadline = NowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000LL;
  long seen = m_Surplus;
  char buffer[1 << 16];
  while (seen < lines) {
    const std::int64_t left = deadline - NowNs();
    if (left <= 0) break;
    pollfd descriptor{m_Out, POLLIN, 0};
    const int rc = ::poll(&descriptor, 1, static_cast<int>(left / 1000000LL) + 1);
    if (rc < 0 && errno != EINTR) break;
    if (rc <= 0) continue;
    const ssize_t got = ::read(m_Out, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    for (ssize_t i = 0; i < got; ++i) seen += buffer[i] == '\n' ? 1 : 0;
    if (text != nullptr) text->append(buffer, static_cast<std::size_t>(got));
  }
  if (seen < lines) {
    m_Surplus = 0;
    return false;
  }
  m_Surplus = seen - lines;
  return true;
}

void CChild::CloseInput() {
  if (m_In >= 0) ::close(m_In);
  m_In = -1;
}

int CChild::Finish(int timeoutMs) {
  CloseInput();
  if (m_Pid <= 0) return -1;
  const std::int64_t deadline = NowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000LL;
  ::fcntl(m_Out, F_SETFL, O_NONBLOCK);
  char buffer[4096];
  int status = 0;
  for (;;) {
    // Keep the output pipe drained so the child can finish writing.
    while (::read(m_Out, buffer, sizeof(buffer)) > 0) {
    }
    const pid_t done = ::waitpid(m_Pid, &status, WNOHANG);
    if (done == m_Pid) break;
    if (NowNs() > deadline) {
      ::kill(m_Pid, SIGKILL);
      ::waitpid(m_Pid, &status, 0);
      break;
    }
    SleepNs(5000000);
  }
  m_Pid = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

long StatusKb(pid_t pid, const char* field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  const std::string prefix = std::string(field) + ":";
  while (std::getline(in, line)) {
    if (line.compare(0, prefix.size(), prefix) == 0) {
      return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
    }
  }
  return -1;
}

void Fail(benchmark::State& state, const std::string& why) { state.SkipWithError(why.c_str()); }

}  // namespace korvex_bench
