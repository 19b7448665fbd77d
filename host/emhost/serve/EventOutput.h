// serve's output stream: a FILE that writes to a descriptor without ever
// blocking em-host on a reader that has stopped reading. A write that finds
// the reader's buffer full waits for room together with em-host's signal
// descriptor; when a signal is pending it gives up (the write fails, as if
// the reader had gone), so the main thread can act on the signal and stop
// the module, which ends the running tool.
#pragma once

#include <cstdio>

class CEventOutput {
 public:
  // fd stays open (it is standard output); signalFd is polled, never read.
  CEventOutput(int fd, int signalFd);
  ~CEventOutput();  // closes the FILE (flushing what can still go out)
  CEventOutput(const CEventOutput&) = delete;
  CEventOutput& operator=(const CEventOutput&) = delete;

  // Null when no stream could be made; use the descriptor's plain FILE then.
  std::FILE* Stream() const { return m_Stream; }

  // Used by the stream: writes data whole, or fails (returns -1).
  long Write(const char* data, unsigned long size);

 private:
  int m_Fd;  // where the bytes go: a non-blocking copy, or fd itself
  bool m_OwnFd = false;
  bool m_Socket = false;
  int m_SignalFd;
  std::FILE* m_Stream = nullptr;
};
