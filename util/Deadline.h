// Absolute CLOCK_MONOTONIC deadlines for the timed waits of pthread
// condition variables whose clock attribute is CLOCK_MONOTONIC.
#pragma once

#include <ctime>

namespace korvex {

// Now on CLOCK_MONOTONIC plus timeoutMs milliseconds.
inline timespec MonotonicDeadlineAfter(unsigned int timeoutMs) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += static_cast<time_t>(timeoutMs / 1000u);
  deadline.tv_nsec += static_cast<long>(timeoutMs % 1000u) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

}  // namespace korvex
