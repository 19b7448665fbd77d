// The benchmarks' shared helpers: clock, statistics, the tool's
// installation, requests, the loaded plug-in and child processes.
#include "bench/BenchSupport.h"

#include "bench/BenchStamp.h"
#include "frame/ModuleEntry.h"
#include "host/HostControl.h"
#include "tests/support/PluginLoader.h"
#include "util/Deadline.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

namespace korvex_bench {

std::int64_t NowNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void SleepNs(std::int64_t ns) {
  timespec wait{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
  KORVEX_RETRY(::nanosleep(&wait, &wait));  // wait holds what is left after a signal
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

pid_t SpawnTool(const char* tool) {
  char* const argv[] = {const_cast<char*>(tool), nullptr};
  pid_t pid = -1;
  return posix_spawn(&pid, tool, nullptr, nullptr, argv, environ) == 0 ? pid : -1;
}

bool ReapExitedZero(pid_t pid) {
  int status = 0;
  if (pid <= 0 || KORVEX_RETRY(::waitpid(pid, &status, 0)) != pid) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
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

bool InstallTool(const std::string& dir, std::string* error) {
  const std::string content = korvex_test::ReadFile(ToolPath());
  if (content.empty()) {
    if (error != nullptr) *error = std::string(ToolPath()) + ": cannot read the tool";
    return false;
  }
  try {
    korvex_test::WriteFile(dir + "/Korvex", content, 0755);
  } catch (const std::exception& e) {
    if (error != nullptr) *error = e.what();
    return false;
  }
  return true;
}

// Held open for writing as well as for reading: with a writer always there,
// poll does not report a hang-up each time a tool closes its end and a read
// of an empty FIFO says EAGAIN, never end of file; and the tool's
// non-blocking open always finds a reader.
korvex::CFd MakeStampFifo(const std::string& path, std::string* error) {
  korvex::CFd fifo;
  if (::mkfifo(path.c_str(), 0600) != 0) {
    if (error != nullptr) *error = "mkfifo " + path + ": " + std::strerror(errno);
    return fifo;
  }
  fifo.Reset(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fifo && error != nullptr) *error = "open " + path + ": " + std::strerror(errno);
  return fifo;
}

// ---------------------------------------------------------------------------

std::string RequestText(unsigned int opcode) {
  std::string command =
      "{\"OC\":" + std::to_string(opcode) + ",\"OE\":0,\"OI\":0,\"MI\":65537,\"CA\":4294967295";
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

CReplyClock::CReplyClock(CRecordingSwitch& replies) : m_Switch(replies) {
  sem_init(&m_Replies, 0, 0);
  m_Switch.SetReplyWatcher([this](const SipJson& message) {
    const std::int64_t now = NowNs();
    m_Status = message.Status();
    m_StampNs = now;
    sem_post(&m_Replies);  // publishes the two fields to the waiter
  });
}

CReplyClock::~CReplyClock() {
  m_Switch.SetReplyWatcher(nullptr);
  sem_destroy(&m_Replies);
}

bool CReplyClock::WaitReply(unsigned int timeoutMs, std::int64_t& stampNs, unsigned int& status) {
  const timespec deadline = korvex::MonotonicDeadlineAfter(timeoutMs);
  if (KORVEX_RETRY(sem_clockwait(&m_Replies, CLOCK_MONOTONIC, &deadline)) != 0) return false;
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

CPluginModule::CPluginModule() {
  if (!MakeRoot() || !OpenStampFifo()) return;
  halvane::ClearRegistry();
  halvane::SetRegistryValue(halvane::ProductRootKey("Korvex") + "\\Setup", "FileRoot",
                            m_Dir->Path());
  StartModule();
}

bool CPluginModule::MakeRoot() {
  try {
    m_Dir = std::make_unique<korvex_test::CTempDir>("korvex-bench-root");
  } catch (const std::exception& e) {
    m_Error = e.what();
    return false;
  }
  return InstallTool(m_Dir->Path(), &m_Error);
}

// Every child - the module's tool among them - inherits this process's
// environment, and with it the FIFO's path.
bool CPluginModule::OpenStampFifo() {
  try {
    m_StampDir = std::make_unique<korvex_test::CTempDir>("korvex-bench-stamps");
  } catch (const std::exception& e) {
    m_Error = e.what();
    return false;
  }
  const std::string path = *m_StampDir / "stamps";
  m_StampRead = MakeStampFifo(path, &m_Error);
  if (!m_StampRead) return false;
  ::setenv(kStampPathVariable, path.c_str(), 1);
  return true;
}

bool CPluginModule::StartModule() {
  CModuleLibrary* library = korvex_test::SharedModuleLibrary(PluginPath(), &m_Error);
  if (library == nullptr) return false;
  m_Instance = std::make_unique<CModuleInstance>(*library);
  if (!m_Instance->Create(&m_Error)) return false;
  m_Instance->Module().SetServerCabinetNumber(0);
  if (m_Instance->Start(&m_Switch, 0x00010001u) != 1) {
    m_Error = "Start did not find the tool";
    m_Instance->StopAndDelete();
    return false;
  }
  return true;
}

// The library stays loaded, as a host keeps it: its worker has ended, but
// nothing is gained by unmapping code at exit.
CPluginModule::~CPluginModule() {
  m_Instance.reset();
  ::unsetenv(kStampPathVariable);
  m_StampRead.Reset();
  m_StampDir.reset();
}

bool CPluginModule::ReadStamp(std::int64_t& stampNs, int timeoutMs) {
  const std::int64_t deadline = NowNs() + static_cast<std::int64_t>(timeoutMs) * 1000000LL;
  for (;;) {
    const ssize_t got = KORVEX_RETRY(::read(m_StampRead.Get(), &stampNs, sizeof(stampNs)));
    if (got == static_cast<ssize_t>(sizeof(stampNs))) return true;
    if (got < 0 && errno != EAGAIN) return false;
    const std::int64_t left = deadline - NowNs();
    if (left <= 0) return false;
    pollfd descriptor{m_StampRead.Get(), POLLIN, 0};
    ::poll(&descriptor, 1, static_cast<int>(left / 1000000LL) + 1);
  }
}

void CPluginModule::DrainStamps() {
  std::int64_t stamp;
  while (::read(m_StampRead.Get(), &stamp, sizeof(stamp)) > 0) {
  }
}

// ---------------------------------------------------------------------------

std::unique_ptr<korvex_test::CChildProcess> StartChild(const std::vector<std::string>& argv,
                                                       const std::vector<std::string>& extraEnv,
                                                       const std::string& errPath,
                                                       std::string* error) {
  korvex_test::CChildOptions options;
  options.m_ErrorFile = errPath;
  try {
    return std::make_unique<korvex_test::CChildProcess>(argv, extraEnv, options);
  } catch (const std::exception& e) {
    if (error != nullptr) *error = e.what();
    return nullptr;
  }
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
