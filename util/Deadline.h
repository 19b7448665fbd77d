// Absolute CLOCK_MONOTONIC deadlines for the timed waits of pthread
// condition variables, the one way such a condition variable is made (its
// clock attribute must match the deadlines' clock), and the wait itself:
// a wall-clock jump then neither ends a wait early nor stretches it.
#pragma once

#include <cerrno>
#include <ctime>
#include <pthread.h>

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

// Initialises condition for waits against MonotonicDeadlineAfter deadlines.
inline void InitMonotonicCondition(pthread_cond_t& condition) {
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&condition, &attributes);
  pthread_condattr_destroy(&attributes);
}

// Waits on condition (mutex held) until done() or the deadline passed; a
// null deadline waits without limit. done() is tested before the first
// sleep and after every wake-up, so a change made before the wait is never
// missed and spurious wake-ups are harmless. Returns done() at the end. A
// cancellation point: a cancelled wait unwinds with mutex held again.
template <typename Done>
bool WaitCondition(pthread_cond_t& condition, pthread_mutex_t& mutex, const timespec* deadline,
                   Done done) {
  while (!done()) {
    if (deadline == nullptr) {
      pthread_cond_wait(&condition, &mutex);
    } else if (pthread_cond_timedwait(&condition, &mutex, deadline) == ETIMEDOUT) {
      return done();
    }
  }
  return true;
}

}  // namespace korvex
