// Waiting for "a wake-up, a signal or a deadline", the one wait of em-host's
// command and session loops.
//
// A CWakeEvent is an eventfd another thread notifies (a reply came back); a
// signal descriptor is a signalfd (CSignalWatch). CWaiter polls both with
// the time left to a deadline, retrying interruptions, and says which came
// first. The caller then drains the wake-up or reads the signal.
#pragma once

#include "util/Fd.h"

#include <chrono>
#include <poll.h>

namespace korvex {

class CWakeEvent {
 public:
  // Throws std::system_error when no eventfd can be made.
  CWakeEvent();
  // Safe from any thread; never blocks (a full counter wakes anyway).
  void Notify() noexcept;
  // Takes every pending notification.
  void Drain() noexcept;
  int Fd() const noexcept { return m_Fd.Get(); }

 private:
  CFd m_Fd;
};

class CWaiter {
 public:
  using Clock = std::chrono::steady_clock;
  enum class Woken { kWake, kSignal, kDeadline, kError };

  // Either descriptor may be -1 (not watched). wakeEvents is what counts
  // as a wake-up on wakeFd: readable by default, POLLOUT for a writer that
  // waits for room.
  CWaiter(int wakeFd, int signalFd, short wakeEvents = POLLIN) noexcept
      : m_WakeFd(wakeFd), m_SignalFd(signalFd), m_WakeEvents(wakeEvents) {}

  // Waits until a descriptor is readable or deadline passes
  // (Clock::time_point::max(): no deadline). A pending signal wins over a
  // pending wake-up, so a stop is never starved by a stream of replies.
  Woken WaitUntil(Clock::time_point deadline) const;
  Woken WaitFor(std::chrono::milliseconds timeout) const {
    return WaitUntil(Clock::now() + timeout);
  }
  Woken Wait() const { return WaitUntil(Clock::time_point::max()); }

 private:
  int m_WakeFd;
  int m_SignalFd;
  short m_WakeEvents;
};

}  // namespace korvex
