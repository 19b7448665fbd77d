// What the benchmarks share: the clock, sample statistics, the heap counter
// window, scratch tool roots with the trivial tool installed as "Korvex",
// typical request messages, the plug-in loaded and started once behind the
// shared recording switch with every reply stamped, and child processes
// started through the shared driver.
#pragma once

#include "frame/ExtensionModule.h"
#include "frame/HostServices.h"
#include "host/emhost/loader/ModuleHost.h"
#include "message/SipJson.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RecordingSwitch.h"
#include "tests/support/TempFiles.h"
#include "util/Fd.h"

#include <cstdint>
#include <memory>
#include <semaphore.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace benchmark {
class State;
}

namespace korvex_bench {

// ----- clock and statistics --------------------------------------------------
// CLOCK_MONOTONIC in nanoseconds: the clock the tool stamps its exit with.
std::int64_t NowNs();
void SleepNs(std::int64_t ns);

// Nearest-rank percentile (0..100) of samples; 0 when there are none.
double Percentile(std::vector<std::int64_t> samples, double percent);

// An unsigned number from the environment, or fallback.
long EnvNumber(const char* name, long fallback);

// ----- the reference process start --------------------------------------------
// posix_spawn of tool (no arguments), -1 when it could not be started.
pid_t SpawnTool(const char* tool);
// Waits for pid; true when it exited with 0 (false for a pid of -1).
bool ReapExitedZero(pid_t pid);

// ----- heap counter (AllocCount.cpp) -----------------------------------------
struct CHeapCount {
  long long m_Blocks;  // blocks allocated minus blocks freed
  long long m_Bytes;   // their usable bytes (malloc_usable_size)
};
// Counts the calling thread's heap traffic from here on.
void OpenHeapWindow();
CHeapCount CloseHeapWindow();

// ----- files -----------------------------------------------------------------
// Paths of the programs the build made beside the benchmark.
const char* PluginPath();
const char* EmHostPath();
const char* ToolPath();

// Copies the trivial tool to <dir>/Korvex (mode 0755). False with *error.
bool InstallTool(const std::string& dir, std::string* error);

// Makes a FIFO at path (mode 0600) for the tool's stamps and opens it
// non-blocking for reading; the tool finds it through the environment
// variable kStampPathVariable (bench/BenchStamp.h). An invalid descriptor
// with *error when it cannot.
korvex::CFd MakeStampFifo(const std::string& path, std::string* error);

// ----- messages ----------------------------------------------------------------
constexpr unsigned int kOpcodeQuery = 0x3400;
constexpr unsigned int kOpcodeCreate = 0x3401;

// A request as a switch hands it over: one command with opcode, extension,
// object id, module id, cabinet "all" and (creation) a time-out of 600 s.
std::string RequestText(unsigned int opcode);
// Loads text into message and tags it the way em-host's switch does
// (m_pszExtra "em-host:<tag>"). False when the text does not parse.
bool LoadRequest(SipJson& message, const std::string& text, unsigned long tag);

// ----- the plug-in ---------------------------------------------------------------
// Watches the switch the benchmarks start the module with: each reply is
// stamped first (the benchmark measures up to the moment the switch has the
// answer in its hands), its status kept and a semaphore posted.
class CReplyClock {
 public:
  explicit CReplyClock(CRecordingSwitch& replies);
  ~CReplyClock();
  CReplyClock(const CReplyClock&) = delete;
  CReplyClock& operator=(const CReplyClock&) = delete;

  // Waits up to timeoutMs for the next reply; false on time-out.
  bool WaitReply(unsigned int timeoutMs, std::int64_t& stampNs, unsigned int& status);

 private:
  CRecordingSwitch& m_Switch;
  sem_t m_Replies;
  std::int64_t m_StampNs = 0;
  unsigned int m_Status = 0;
};

// libEM_KORVEX.so loaded through em-host's loader, one instance created and
// started on a scratch tool root that holds the trivial tool as "Korvex".
// The tool's exit stamps arrive in a FIFO that every child finds through
// this process's environment.
class CPluginModule {
 public:
  static CPluginModule& Instance();
  // Stops and deletes the instance; called once at the end of main.
  static void Shutdown();

  bool Ok() const { return m_Instance != nullptr && m_Instance->Created() && m_Error.empty(); }
  const std::string& Error() const { return m_Error; }
  CIExtensionModule& Module() { return m_Instance->Module(); }
  CReplyClock& Replies() { return m_Clock; }
  const korvex_test::CTempDir& Dir() const { return *m_Dir; }
  std::string ToolInRoot() const { return m_Dir->Root() + "Korvex"; }

  // Reads one exit stamp, waiting up to timeoutMs; false when none came.
  bool ReadStamp(std::int64_t& stampNs, int timeoutMs);
  // Drops stamps that are waiting.
  void DrainStamps();

 private:
  CPluginModule();
  ~CPluginModule();
  bool MakeRoot();
  bool OpenStampFifo();
  bool StartModule();

  std::unique_ptr<korvex_test::CTempDir> m_Dir;
  CRecordingSwitch m_Switch{/*keepCopies=*/false};
  CReplyClock m_Clock{m_Switch};
  std::unique_ptr<CModuleInstance> m_Instance;
  std::unique_ptr<korvex_test::CTempDir> m_StampDir;
  korvex::CFd m_StampRead;
  std::string m_Error;
};

// ----- child processes ---------------------------------------------------------
// argv started on pipes, standard error appended to errPath (when given);
// nullptr with *error when it cannot start.
std::unique_ptr<korvex_test::CChildProcess> StartChild(const std::vector<std::string>& argv,
                                                       const std::vector<std::string>& extraEnv,
                                                       const std::string& errPath,
                                                       std::string* error);

// "VmHWM" or "VmRSS" of a process in KiB, -1 when unreadable.
long StatusKb(pid_t pid, const char* field);

// Marks the benchmark as failed with a message.
void Fail(benchmark::State& state, const std::string& why);

}  // namespace korvex_bench
