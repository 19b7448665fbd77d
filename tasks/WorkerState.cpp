#include "tasks/WorkerState.h"

#include <ctime>
#include <time.h>

// Holds m_Mutex for a scope; keeps a thread cancellation out of it, so that a
// worker killed while held cannot leave the mutex locked or be unwound
// through the wait. A pending cancellation acts at the next cancellation
// point after the scope.
class CWorkerState::CLock {
 public:
  explicit CLock(pthread_mutex_t& mutex) : m_Mutex(mutex) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_OldState);
    pthread_mutex_lock(&m_Mutex);
  }
  ~CLock() {
    pthread_mutex_unlock(&m_Mutex);
    pthread_setcancelstate(m_OldState, nullptr);
  }
  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;

 private:
  pthread_mutex_t& m_Mutex;
  int m_OldState = PTHREAD_CANCEL_ENABLE;
};

CWorkerState::CWorkerState() {
  pthread_mutex_init(&m_Mutex, nullptr);
  pthread_cond_init(&m_Changed, nullptr);
}

CWorkerState::~CWorkerState() {
  pthread_cond_destroy(&m_Changed);
  pthread_mutex_destroy(&m_Mutex);
}

void CWorkerState::Starting() {
  CLock lock(m_Mutex);
  m_Busy = true;
  m_Held = false;
}

void CWorkerState::EnterIdle() {
  CLock lock(m_Mutex);
  m_Busy = false;
  pthread_cond_broadcast(&m_Changed);
}

void CWorkerState::LeaveIdle() {
  CLock lock(m_Mutex);
  while (m_Held) pthread_cond_wait(&m_Changed, &m_Mutex);
  m_Busy = true;
}

namespace {

constexpr long long kNsPerMs = 1000000;
constexpr long long kNsPerSecond = 1000000000;

// In nanoseconds: whole milliseconds would let a wait end up to a
// millisecond before its limit.
long long NowNs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<long long>(now.tv_sec) * kNsPerSecond + now.tv_nsec;
}

timespec RealtimeIn(long long ns) {
  const long long at = NowNs(CLOCK_REALTIME) + ns;
  timespec deadline{};
  deadline.tv_sec = static_cast<time_t>(at / kNsPerSecond);
  deadline.tv_nsec = static_cast<long>(at % kNsPerSecond);
  return deadline;
}

}  // namespace

bool CWorkerState::HoldAndWaitIdle(unsigned int timeoutMs) {
  // The time limit is kept on the monotonic clock; the waits themselves are
  // short slices on the condition's default (wall) clock, so a clock change
  // moves the end of one slice at most.
  constexpr long long kSliceNs = 50 * kNsPerMs;
  const long long end = NowNs(CLOCK_MONOTONIC) + static_cast<long long>(timeoutMs) * kNsPerMs;
  CLock lock(m_Mutex);
  m_Held = true;
  while (m_Busy) {
    const long long left = end - NowNs(CLOCK_MONOTONIC);
    if (left <= 0) return false;
    const timespec slice = RealtimeIn(left < kSliceNs ? left : kSliceNs);
    pthread_cond_timedwait(&m_Changed, &m_Mutex, &slice);
  }
  return true;
}

void CWorkerState::Release() {
  CLock lock(m_Mutex);
  m_Held = false;
  pthread_cond_broadcast(&m_Changed);
}
