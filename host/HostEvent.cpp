// The stand-alone host's CEvent: a manual- or auto-reset event on a pthread
// mutex and a condition variable that measures time-outs on CLOCK_MONOTONIC,
// so that a wall-clock jump neither ends a wait early nor stretches it.
//
// A waiter tests the signalled flag under the mutex before it sleeps and
// after every wake-up, so a Set that comes before the Wait is never lost and
// spurious wake-ups are harmless.
#include "frame/HostServices.h"
#include "util/Deadline.h"

#include <cerrno>
#include <pthread.h>

namespace {

// Releases the event mutex also when the waiting thread is cancelled inside
// pthread_cond_wait (CThread::Kill): the cancelled wait re-acquires the mutex
// before unwinding, and without this the next Set or the destructor would
// block on a mutex owned by a thread that no longer exists.
class CMutexUnlocker {
 public:
  explicit CMutexUnlocker(pthread_mutex_t* mutex) : m_pMutex(mutex) {}
  ~CMutexUnlocker() { pthread_mutex_unlock(m_pMutex); }
  CMutexUnlocker(const CMutexUnlocker&) = delete;
  CMutexUnlocker& operator=(const CMutexUnlocker&) = delete;

 private:
  pthread_mutex_t* m_pMutex;
};

}  // namespace

// name and attributes are accepted for the host's signature; the stand-alone
// host has no named or shared events.
CEvent::CEvent(int initiallySignalled, int manualReset, const char* /*name*/, void* /*attributes*/)
    : m_Signalled(initiallySignalled != 0 ? 1u : 0u), m_ManualReset(manualReset != 0 ? 1u : 0u) {
  pthread_mutex_init(&m_Mutex, nullptr);
  korvex::InitMonotonicCondition(m_Cond);
}

CEvent::~CEvent() {
  pthread_cond_destroy(&m_Cond);
  pthread_mutex_destroy(&m_Mutex);
}

int CEvent::Set() {
  if (pthread_mutex_lock(&m_Mutex) != 0) return 0;
  m_Signalled = 1;
  // A manual-reset event releases every waiter; an auto-reset event exactly
  // one (the one that consumes the signal).
  const int rc =
      m_ManualReset != 0 ? pthread_cond_broadcast(&m_Cond) : pthread_cond_signal(&m_Cond);
  pthread_mutex_unlock(&m_Mutex);
  return rc == 0 ? 1 : 0;
}

int CEvent::Reset() {
  if (pthread_mutex_lock(&m_Mutex) != 0) return 0;
  m_Signalled = 0;
  pthread_mutex_unlock(&m_Mutex);
  return 1;
}

// alertable has no meaning in the stand-alone host (there are no queued
// asynchronous calls to deliver); the wait is a cancellation point either way.
int CEvent::Wait(unsigned int timeoutMs, int /*alertable*/) {
  if (pthread_mutex_lock(&m_Mutex) != 0) return 0;
  CMutexUnlocker unlocker(&m_Mutex);
  const bool forever = timeoutMs == kInfinite;
  const timespec deadline = korvex::MonotonicDeadlineAfter(forever ? 0u : timeoutMs);
  if (!korvex::WaitCondition(m_Cond, m_Mutex, forever ? nullptr : &deadline,
                             [this] { return m_Signalled != 0; })) {
    return 0;
  }
  if (m_ManualReset == 0) m_Signalled = 0;
  return 1;
}
