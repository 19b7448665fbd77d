// Signals for em-host. SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2
// and SIGALRM (kEndingSignals) are blocked in every thread -
// before the module starts its worker, which inherits the mask - and are
// read from a signalfd by the main thread, which then stops the module in
// an ordinary context (nothing is done inside a signal handler). SIGPIPE is
// blocked too, so that a reader that goes away shows as EPIPE on write.
// Children do not inherit the mask: the host's process service resets it.
#pragma once

#include "util/Fd.h"

#include <csignal>
#include <iterator>

// The signals that end a command: the stop of the module ends a running tool
// gracefully (its whole tree) before em-host exits with 128 + the number.
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM};

class CSignalWatch {
 public:
  // Blocks the ending signals (and SIGPIPE) in the calling thread; call it
  // before any thread exists. Throws std::runtime_error when no signalfd
  // can be made.
  CSignalWatch() : CSignalWatch(std::begin(kEndingSignals), std::end(kEndingSignals)) {}
  // The same for the signals [first, last): for a program embedding
  // em-host's parts that uses some of the ending signals itself (a fuzzing
  // driver's SIGALRM time-out).
  CSignalWatch(const int* first, const int* last);
  CSignalWatch(const CSignalWatch&) = delete;
  CSignalWatch& operator=(const CSignalWatch&) = delete;

  // The descriptor to poll for POLLIN.
  int Fd() const { return m_Fd.Get(); }
  // Reads one pending signal; its number, or 0 when none is pending.
  int Take();

 private:
  korvex::CFd m_Fd;
};

// The exit status of a program ended because of signal signo (130 for SIGINT).
inline int ExitStatusForSignal(int signo) { return 128 + signo; }
