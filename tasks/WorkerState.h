// CWorkerState: whether the serializer's worker may be inside a call into
// the derived class, and whether it is held before its next one. Lets the
// derived class's destructor wait, without any trace, until the worker is out
// of the derived class for good before its members go (see
// CTaskSerializer::QuiesceWorker).
//
// Plain pthread primitives on purpose: std::condition_variable::wait is a
// newer libstdc++ symbol (GLIBCXX_3.4.30) than the older hosts the plug-in
// must load into provide, its timed waits use pthread_cond_clockwait
// (GLIBC_2.30), and even pthread_condattr_setclock is GLIBC_2.34 on systems
// where libpthread has moved into libc.
#pragma once

#include <pthread.h>

class CWorkerState {
 public:
  CWorkerState();
  ~CWorkerState();
  CWorkerState(const CWorkerState&) = delete;
  CWorkerState& operator=(const CWorkerState&) = delete;

  // A new worker is about to start: busy from birth, not held.
  void Starting();
  // Worker: about to wait for work; makes no call into the derived class
  // until LeaveIdle returns. Also how a worker ends, however it ends.
  void EnterIdle();
  // Worker: woken; waits while it is held, then counts as busy again.
  void LeaveIdle();
  // Holds the worker before its next call into the derived class and waits
  // up to timeoutMs for it to be idle. true: idle.
  bool HoldAndWaitIdle(unsigned int timeoutMs);
  // Lets a held worker go on.
  void Release();

 private:
  class CLock;

  pthread_mutex_t m_Mutex;
  pthread_cond_t m_Changed;
  bool m_Busy = false;
  bool m_Held = false;
};
