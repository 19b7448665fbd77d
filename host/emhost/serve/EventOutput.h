// serve's output stream: a FILE that writes to a descriptor without ever
// blocking em-host on a reader that has stopped reading. A write that finds
// the reader's buffer full waits for room together with em-host's signal
// descriptor; when a signal is pending it gives up (the write fails, as if
// the reader had gone), so the main thread can act on the signal and stop
// the module, which ends the running tool.
#pragma once

#include "util/Fd.h"

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
  // Opens a pipe or terminal anew, non-blocking, into m_Copy.
  void OpenNonBlockingCopy(int fd);
  // Some of data (at least one byte, or -1 with errno).
  long WriteSome(const char* data, unsigned long size);
  // Waits until the reader has room; false when a signal is pending or
  // the descriptor failed.
  bool WaitForRoom();

  korvex::CFd m_Copy;  // the non-blocking copy of a pipe or terminal, if one was made
  int m_Fd;            // where the bytes go: m_Copy, or fd itself
  bool m_Socket = false;
  int m_SignalFd;
  std::FILE* m_Stream = nullptr;
};
