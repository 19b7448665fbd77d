// The supervisor that owns a tool's whole process tree (used by
// CProcess::ExecuteCmd in HostProcess.cpp).
//
// The tool is not started directly: a small supervisor process is forked
// first, and the supervisor starts the tool. Where the caller may create a
// PID namespace (CAP_SYS_ADMIN), the supervisor is PID 1 of a new one: every
// process the tool starts, whatever session or group it moves to and however
// it is reparented, lives in that namespace, and when the supervisor ends the
// kernel kills whatever is left of it. Without that privilege the supervisor
// makes itself a child subreaper: orphans of the tree are reparented to it
// and it finds the tree by walking /proc for its descendants.
//
// The supervisor ends the tree gracefully - SIGTERM to every process of it,
// SIGKILL to what is left after a grace period - when
//  - it receives SIGTERM (TerminateProcess),
//  - the host process dies, SIGKILL included: the supervisor holds the read
//    end of a "lifeline" pipe whose only write end is in the host process,
//    so the end of the host shows up as end of file, with no race against
//    the moment the supervisor starts,
//  - the tool itself ends and leaves processes behind.
// It reports the tool's start, a failed exec (its errno) and the tool's own
// wait status through a report pipe, and copies the tool's output (standard
// output and error share one pipe) into a size-bounded log.
//
// Everything the supervisor does after fork is async-signal-safe: plain
// system calls on data prepared before the fork, no allocation, no locks.
#pragma once

#include "util/Fd.h"

#include <cstddef>
#include <sys/types.h>

namespace halvane {

// What the supervisor needs, prepared before fork. The pointers must stay
// valid until StartSupervisor returns (the forked child has its own copy).
struct CTreeLaunch {
  const char* m_Path = nullptr;        // the program, run without arguments
  const char* m_WorkingDir = nullptr;  // null or empty: inherited
  int m_LogFd = -1;                    // the tool's output goes here; -1: /dev/null
  int m_LogDirFd = -1;                 // for rotation: directory of the log, or -1
  const char* m_LogName = nullptr;     // the log's name in m_LogDirFd
  const char* m_LogOldName = nullptr;  // where a full log is moved
  std::size_t m_LogHalfBytes = 0;      // a log this big is rotated (0: never)
  unsigned int m_GraceMs = 1500;       // SIGTERM first, SIGKILL this much later
  bool m_TryNamespace = true;          // attempt a PID namespace
};

// What the supervisor writes into the report pipe: fixed-size records.
enum : int {
  kTreeStarted = 1,     // m_Value: the tool's pid as the supervisor sees it
  kTreeExecFailed = 2,  // m_Value: errno of the failed exec
  kTreeToolEnded = 3,   // m_Value: the tool's wait status
};
struct CTreeReport {
  int m_Kind;
  int m_Value;
};

struct CTreeChild {
  pid_t m_Pid = -1;          // the supervisor, as the host sees it
  korvex::CFd m_ReportFd;    // read end of the report pipe (close-on-exec)
  korvex::CFd m_LifelineFd;  // write end of the lifeline; keep it until the supervisor is reaped
  bool m_Namespace = false;
};

// Forks the supervisor; call it on a thread that lives until the
// supervisor is reaped, with every signal blocked in that thread (the
// supervisor inherits the mask and reads its signals from a signalfd).
// m_TryNamespace unshares the calling thread's PID namespace for children,
// so a thread may do that for one supervisor only. False with *error
// (errno) when no supervisor could be made.
bool StartSupervisor(const CTreeLaunch& launch, CTreeChild& child, int* error);

// Reads one report; false at end of file or on error. Blocks.
bool ReadTreeReport(int reportFd, CTreeReport& report);

}  // namespace halvane
