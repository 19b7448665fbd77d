// Runs a program (em-host, cmake, unzip, ...) as a child with its standard
// input, output and error on pipes, for the end-to-end tests.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

struct CFinished {
  int m_Exit = -1;  // exit status, or 128 + signal number
  std::string m_Out;
  std::string m_Err;
};

class CChildProcess {
 public:
  // Starts argv[0] (a path) with argv; extraEnv entries ("NAME=value") are
  // added to the inherited environment. Throws std::runtime_error on failure.
  explicit CChildProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& extraEnv = {});
  ~CChildProcess();  // kills a child that still runs
  CChildProcess(const CChildProcess&) = delete;
  CChildProcess& operator=(const CChildProcess&) = delete;

  pid_t Pid() const { return m_Pid; }
  void Write(const std::string& text);
  void CloseInput();
  // Reads what is there for up to waitMs (keeps the pipes from filling up).
  void Pump(int waitMs);
  // Output read so far.
  const std::string& Out() const { return m_Out; }
  // Closes the input, reads to the end and reaps the child. A child that
  // has not ended after timeoutSec is killed (m_Exit then 128 + SIGKILL).
  CFinished Finish(int timeoutSec = 120);

 private:
  pid_t m_Pid = -1;
  int m_In = -1;
  int m_OutFd = -1;
  int m_ErrFd = -1;
  std::string m_Out;
  std::string m_Err;
};

// Runs argv to its end with the given input.
CFinished RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                     const std::vector<std::string>& extraEnv = {}, int timeoutSec = 120);

// Splits text into lines without their line breaks.
std::vector<std::string> Lines(const std::string& text);
