// Control surface of the stand-alone host services (target halvane_host):
// what em-host and the tests use to set up trace sinks, the configuration
// store and the thread monitor. Modules never include this header; they see
// only frame/HostServices.h.
#pragma once

#include <cstddef>
#include <string>

namespace halvane {

// ----- trace (the global Debug object) -------------------------------------
// Where CDebug::Print writes. Each Print call's text is written whole, with
// nothing added, and never interleaved with another thread's.
// Defaults: trace switch off, sink standard error, level 5 (every level the
// module uses passes), debug name "em-host". Print itself does not test the
// switch; that is the caller's guard (frame/Trace.h), so a call made with
// the switch off still shows up in the sink and in PrintCallCount.
void TraceToStderr();
bool TraceToFile(const char* path, std::string* error = nullptr);  // appends
void TraceToMemory();                                              // captured until TakeTrace
std::string TakeTrace();                    // the captured text, cleared afterwards
void SetTraceLevel(unsigned int maxLevel);  // Print calls above maxLevel are dropped
void SetTraceSwitch(bool on);               // Debug.m_TraceSwitch
void SetDebugName(const char* name);        // Debug.m_DebugName
unsigned int TraceLevel();                  // the current maximum level
// Every CDebug::Print call since the process started, also those filtered
// out by level: lets a test prove that no call was made at all.
unsigned long PrintCallCount();

// ----- configuration store (CRegistry) --------------------------------------
// The store is process-wide. Key paths use "\\" separators and are compared
// case-sensitively. A product's root key is "SOFTWARE\\Halvane\\<product>";
// GetProductRegistryRoot finds it when that key or any key below it exists.
void ClearRegistry();
void SetRegistryValue(const std::string& keyPath, const std::string& valueName,
                      const std::string& value);
// Replaces the store with the contents of a registry file (format in
// docs/REGISTRY.md). On failure the store is unchanged and *error names the
// file and line.
bool LoadRegistryFile(const char* path, std::string* error);
std::string ProductRootKey(const char* productName);

// ----- child processes (CProcess) -----------------------------------------
// What the stand-alone host guarantees (docs/EM-HOST.md explains it for
// operators):
//  - ExecuteCmd runs its command line as one executable path (no shell, no
//    word splitting, no PATH search) under a supervisor process that owns
//    the whole tree the command starts (host/ProcessTree.h): in a PID
//    namespace of its own where the host may make one (root), else as a
//    child subreaper that finds the tree in /proc. The command gets a
//    session of its own, an empty signal mask, default signal actions,
//    /dev/null as standard input and the tool log (SetToolLog) as standard
//    output and error; never the host's own streams. It returns false when
//    the file is missing, not a regular file, not executable, not a
//    program, or refused by the rule below.
//  - Run as root, ExecuteCmd refuses a program that is writable by group or
//    others or owned by a user other than root (or the host's own user), or
//    whose directory is writable by group or others (without the sticky
//    bit) or owned by another user.
//  - The tree ends gracefully: SIGTERM to every process of it, SIGKILL to
//    what is left after kToolGraceMs. That happens on TerminateProcess, when
//    the command ends and leaves processes behind, and when the host process
//    dies, however it dies. ExecuteCmd returns only once the whole tree is
//    gone.
//  - Exit codes: the command's exit status; 128 + the signal number for a
//    command ended by a signal; the code given to TerminateProcess for a
//    tree ended there; 255 when the status was lost.
//  - TerminateProcess only ever signals an unreaped supervisor of
//    ExecuteCmd; any other id gives false. The id ExecuteCmd publishes is
//    the supervisor's, as this host sees it.
//  - WaitForExit waits for a child of ExecuteCmd (also beside a running
//    ExecuteCmd); one already reaped reports its code at once.
//  - FindProcess matches /proc/<pid>/comm exactly (names of 15 characters
//    or more also by the first word of the command line), skips zombies,
//    and counts only processes that run as root or as the host's own user.
constexpr unsigned int kToolGraceMs = 1500;
// The tool log's bound: when it reaches half of it, it is moved to
// "<log>.1" (replacing the one there) and started anew.
constexpr std::size_t kToolLogBytes = 2u << 20;

// Where the output of ExecuteCmd's commands goes from the next run on: the
// file path, appended to (created 0640; a link or a file of another owner is
// not used); empty: discarded. Each run adds a line when it starts and one
// when it ends. The default is empty.
void SetToolLog(const std::string& path, std::size_t maxBytes = kToolLogBytes);

// How the last ExecuteCmd of this process went.
struct CToolRun {
  enum class Result {
    kNone,           // no run yet
    kRunning,        // started, not ended yet
    kExited,         // m_Code: its exit status
    kSignaled,       // m_Code: the signal that ended it
    kTerminated,     // ended through TerminateProcess; m_Code: the code given there
    kNotFound,       // no such file
    kNotExecutable,  // not a regular file, no execute permission, not a program
    kRefused,        // refused by the ownership and permission rule; m_Why says why
    kFailed          // could not be started for another reason; m_Why says why
  };
  Result m_Result = Result::kNone;
  int m_Code = 0;
  std::string m_Why;         // in words, for the results that need it
  std::string m_Path;        // the command
  unsigned int m_Pid = 0;    // the id ExecuteCmd published
  bool m_Namespace = false;  // the tree had a PID namespace of its own
  std::string m_LogPath;     // where its output went; empty: nowhere
  std::string m_LogProblem;  // why the log could not be used, if it could not
};
CToolRun LastToolRun();

// TerminateProcess with exitCode for every command of ExecuteCmd that is
// still running; the number of trees told to end.
unsigned int TerminateRunningTools(unsigned int exitCode);

// ----- thread monitor (pThreadMonitor, ThreadCounter) ----------------------
// A fresh, empty table (a table installed before is freed) whose table
// mutex is a host-owned mutex; ThreadCounter is reset to 0. CThread::Start
// then fills in the thread id and the running bit 0x10 of the thread's
// entry and counts ThreadCounter up, all under the table mutex.
void InstallThreadMonitor();
// pThreadMonitor becomes null; the table is freed with the entry mutexes and
// name copies in it. Only call it while no monitored thread runs and no
// CThread that registered in the table is still alive.
void RemoveThreadMonitor();

}  // namespace halvane
