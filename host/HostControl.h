// Control surface of the stand-alone host services (target halvane_host):
// what em-host and the tests use to set up trace sinks, the configuration
// store and the thread monitor. Modules never include this header; they see
// only frame/HostServices.h.
#pragma once

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
void TraceToMemory();                 // captured until TakeTrace
std::string TakeTrace();              // the captured text, cleared afterwards
void SetTraceLevel(unsigned int maxLevel);  // Print calls above maxLevel are dropped
void SetTraceSwitch(bool on);         // Debug.m_TraceSwitch
void SetDebugName(const char* name);  // Debug.m_DebugName
unsigned int TraceLevel();            // the current maximum level
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
// Nothing to set up. What the stand-alone host guarantees:
//  - ExecuteCmd runs its command line as one executable path (no shell, no
//    word splitting, no PATH search) in a process group of its own, with an
//    empty signal mask and default signal actions; it returns false when the
//    file is missing, not a regular file, not executable or not a program.
//  - When the command ends, whatever it left running in its process group
//    is killed (SIGKILL) before the command is reaped; a process that left
//    the group (setsid, setpgid) is not reached.
//  - Exit codes: the exit status; 128 + the signal number for a child ended
//    by a signal; the code given to TerminateProcess for a child ended there;
//    255 when the status was lost (SIGCHLD ignored by the process).
//  - TerminateProcess sends SIGKILL to the child and its process group, and
//    only ever to an unreaped child of ExecuteCmd; any other id gives false.
//  - WaitForExit waits for a child of ExecuteCmd (also beside a running
//    ExecuteCmd); one already reaped reports its code at once.
//  - FindProcess matches /proc/<pid>/comm exactly (names of 15 characters
//    or more also by the first word of the command line) and skips zombies.

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
