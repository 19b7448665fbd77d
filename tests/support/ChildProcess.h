// A program run as a child for tests and benchmarks (em-host, the tool,
// cmake, unzip, valgrind, ...): its standard input, output and error on
// pipes, waits with deadlines that do not depend on the pipes closing (a
// tool that leaves something behind may keep them open), and the child
// killed and reaped when the object goes. The one driver of child processes
// the suites and the benchmarks share.
#pragma once

#include "util/Fd.h"

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korvex_test {

struct CFinished {
  int m_Exit = -1;  // exit status, or 128 + signal number
  std::string m_Out;
  std::string m_Err;
};

struct CChildOptions {
  std::string m_WorkingDir;  // empty: the caller's
  std::string m_ErrorFile;   // standard error appended to this file instead of a pipe
  bool m_OwnGroup = false;   // a process group of its own, killed as a whole
};

class CChildProcess {
 public:
  // Starts argv[0] (a path) with argv, no signal blocked and every signal
  // at its default. extraEnv entries ("NAME=value") replace or add to the
  // inherited environment. Throws std::runtime_error when it cannot start.
  explicit CChildProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& extraEnv = {},
                         const CChildOptions& options = {});
  ~CChildProcess();  // kills (the group of) a child that still runs
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;

  pid_t Pid() const { return m_Pid; }
  // Writes all of text, reading the output meanwhile so that neither side
  // blocks; false when the child stopped reading.
  bool Write(const std::string& text);
  bool WriteLine(const std::string& line) { return Write(line + "\n"); }
  // Writes all of text and reads nothing: for a writer thread while another
  // thread reads the output. False when the child stopped reading.
  bool WriteOnly(const std::string& text);
  void CloseInput() { m_In.Reset(); }
  // Reads what is there for up to waitMs (keeps the pipes from filling up).
  void Pump(int waitMs);
  const std::string& Out() const { return m_Out; }
  const std::string& Err() const { return m_Err; }
  // The complete lines of the output so far.
  std::vector<std::string> OutputLines() const;

  // Reads until a complete output line satisfies predicate, up to timeout.
  bool WaitForLine(const std::function<bool(const std::string&)>& predicate,
                   std::chrono::milliseconds timeout);
  bool WaitForLineContaining(const std::string& text, std::chrono::milliseconds timeout);
  // Reads until the output holds `lines` more line breaks than earlier
  // calls took, up to timeoutMs; appends the text taken to *text. What it
  // takes is dropped from Out(), so that a long stream does not pile up.
  bool ReadLines(long lines, int timeoutMs, std::string* text = nullptr);

  // Waits for the exit (not for the pipes to close), up to timeout; then
  // takes what is in the pipes. The exit status, or -1 when it did not exit
  // in time (or was reaped already).
  int WaitForExit(std::chrono::milliseconds timeout);
  // Closes the input, reads to the end and reaps the child. A child that
  // has not ended after timeoutSec is killed (m_Exit then 128 + SIGKILL).
  CFinished Finish(int timeoutSec = 120);

 private:
  bool Reap(int options);
  void Kill();
  bool PipesOpen() const { return m_OutFd.Valid() || m_ErrFd.Valid(); }

  pid_t m_Pid = -1;
  bool m_OwnGroup = false;
  int m_Status = 0;
  korvex::CFd m_In;
  korvex::CFd m_OutFd;
  korvex::CFd m_ErrFd;
  std::string m_Out;
  std::string m_Err;
};

// Runs argv to its end with the given input.
CFinished RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                     const std::vector<std::string>& extraEnv = {}, int timeoutSec = 120);

// Splits text into lines without their line breaks (a last unfinished line
// counts).
std::vector<std::string> Lines(const std::string& text);

}  // namespace korvex_test
