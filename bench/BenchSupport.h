// What the benchmarks share: the clock, sample statistics, the heap counter
// window, scratch tool roots with the trivial tool installed as "Korvex",
// typical request messages, the plug-in loaded and started once behind a
// switch that stamps every SendReply, and child processes on pipes.
#pragma once

#include <semaphore.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "frame/ExtensionModule.h"
#include "frame/HostServices.h"
#include "message/SipJson.h"

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

// A scratch directory, removed with its contents at the end.
class CScratchDir {
 public:
  explicit CScratchDir(const char* what);
  ~CScratchDir();
  CScratchDir(const CScratchDir&) = delete;
  CScratchDir& operator=(const CScratchDir&) = delete;

  bool Ok() const { return !m_Path.empty(); }
  const std::string& Path() const { return m_Path; }
  std::string Root() const { return m_Path + "/"; }  // as the module builds paths

 private:
  std::string m_Path;
};

// Copies the trivial tool to <dir>/Korvex (mode 0755). False with *error.
bool InstallTool(const std::string& dir, std::string* error);

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
// The switch the benchmarks start the module with. SendReply stamps the time,
// keeps the reply's status and posts a semaphore.
class CBenchSwitch : public CISwitch {
 public:
  CBenchSwitch();
  ~CBenchSwitch() override;
  unsigned int GetServiceType() override { return 5; }
  int AsyncRequest(CIExtensionModule*, SipJson&, unsigned int) override { return 0; }
  int SendReply(CIExtensionModule* sender, SipJson& message) override;

  // Waits up to timeoutMs for the next reply; false on time-out.
  bool WaitReply(unsigned int timeoutMs, std::int64_t& stampNs, unsigned int& status);

 private:
  sem_t m_Replies;
  std::int64_t m_StampNs = 0;
  unsigned int m_Status = 0;
};

// libEM_KORVEX.so loaded with dlopen, one instance created and started on a
// scratch tool root that holds the trivial tool as "Korvex". The tool's exit
// stamps arrive on StampFd (its write end is inherited by every child).
class CPluginModule {
 public:
  static CPluginModule& Instance();
  // Stops and deletes the instance; called once at the end of main.
  static void Shutdown();

  bool Ok() const { return m_Module != nullptr; }
  const std::string& Error() const { return m_Error; }
  CIExtensionModule& Module() { return *m_Module; }
  CBenchSwitch& Switch() { return m_Switch; }
  const CScratchDir& Dir() const { return m_Dir; }
  std::string ToolInRoot() const { return m_Dir.Root() + "Korvex"; }

  int StampFd() const { return m_StampRead; }
  // Reads one exit stamp, waiting up to timeoutMs; false when none came.
  bool ReadStamp(std::int64_t& stampNs, int timeoutMs);
  // Drops stamps that are waiting.
  void DrainStamps();

 private:
  CPluginModule();
  ~CPluginModule();
  void Close();

  CScratchDir m_Dir;
  CBenchSwitch m_Switch;
  void* m_Library = nullptr;
  CIExtensionModule* m_Module = nullptr;
  int (*m_Delete)(void*) = nullptr;
  int m_StampRead = -1;
  int m_StampWrite = -1;
  std::string m_Error;
};

// ----- child processes ---------------------------------------------------------
// A program started with posix_spawn, its standard input and output on pipes
// (standard error to errPath, or /dev/null). extraEnv ("NAME=value") is added
// to the environment; keepFd (if >= 0) stays open in the child.
class CChild {
 public:
  CChild(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv,
         const std::string& errPath = std::string());
  ~CChild();  // kills a child that still runs
  CChild(const CChild&) = delete;
  CChild& operator=(const CChild&) = delete;

  bool Ok() const { return m_Pid > 0; }
  pid_t Pid() const { return m_Pid; }
  int In() const { return m_In; }
  int Out() const { return m_Out; }
  // Writes all of text to the child's input; false when the child is gone.
  bool Write(const std::string& text);
  // Reads output until it holds `lines` more line breaks than were consumed,
  // or timeoutMs passes; appends what it read to *text when given.
  bool ReadLines(long lines, int timeoutMs, std::string* text = nullptr);
  void CloseInput();
  // Closes the input and waits up to timeoutMs for the exit (then kills).
  int Finish(int timeoutMs);

 private:
  pid_t m_Pid = -1;
  int m_In = -1;
  int m_Out = -1;
  long m_Surplus = 0;  // line breaks read beyond those asked for so far
};

// "VmHWM" or "VmRSS" of a process in KiB, -1 when unreadable.
long StatusKb(pid_t pid, const char* field);

// Marks the benchmark as failed with a message.
void Fail(benchmark::State& state, const std::string& why);

}  // namespace korvex_bench
