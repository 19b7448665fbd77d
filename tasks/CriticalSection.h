// CCriticalSection: the task serializer's lock. A plain (non-recursive)
// pthread mutex made re-entrant by hand with an owner and a nesting count, so
// that code holding the lock may call back into operations that take it
// again (an overrun handler inserting a task, a queue-empty handler
// inspecting the queues).
#pragma once

#include <cstdint>
#include <pthread.h>

class CCriticalSection {
 public:
  // Owner none, count 0, invalid until the mutex exists. A failed mutex
  // initialisation leaves the lock invalid: it then excludes nobody and only
  // counts, which keeps a serializer usable on a starved host.
  CCriticalSection() : m_Owner(0), m_Count(0), m_Valid(0) {
    if (pthread_mutex_init(&m_Mutex, nullptr) == 0) {
      m_Valid = 1;
    }
  }

  // A lock still held at destruction is released when the destroying thread
  // is its owner; otherwise the count is pinned to 1 so that nobody can take
  // the dying lock as free. The mutex itself is destroyed whenever it exists.
  ~CCriticalSection() {
    if (m_Valid != 0 && m_Count > 0) {
      m_Count = 1;
      if (OwnedByCaller()) {
        __atomic_store_n(&m_Owner, std::uint64_t{0}, __ATOMIC_RELAXED);
        m_Count = 0;
        pthread_mutex_unlock(&m_Mutex);
      }
    }
    if (m_Valid != 0) {
      pthread_mutex_destroy(&m_Mutex);
    }
  }

  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  // Take. The owner is read outside the mutex: only the owning thread can
  // ever find its own id there, so a stale read by anybody else just sends
  // it to pthread_mutex_lock, which is where it belongs. The read is atomic
  // only so that the race detector sees what the design already relies on.
  void Lock() {
    if (m_Valid != 0) {
      if (!OwnedByCaller()) {
        pthread_mutex_lock(&m_Mutex);
        __atomic_store_n(&m_Owner, Self(), __ATOMIC_RELAXED);
      }
    }
    ++m_Count;
  }

  // Release. A call by a thread that does not own the lock changes nothing.
  void Unlock() {
    if (m_Valid != 0 && OwnedByCaller()) {
      --m_Count;
      if (m_Count == 0) {
        __atomic_store_n(&m_Owner, std::uint64_t{0}, __ATOMIC_RELAXED);
        pthread_mutex_unlock(&m_Mutex);
      }
    }
  }

  // The same operations under the names std::lock_guard expects.
  void lock() { Lock(); }
  void unlock() { Unlock(); }

  bool OwnedByCaller() const { return __atomic_load_n(&m_Owner, __ATOMIC_RELAXED) == Self(); }

  static std::uint64_t Self() { return static_cast<std::uint64_t>(pthread_self()); }

  // Fields, in this order.
  pthread_mutex_t m_Mutex;
  std::uint64_t m_Owner;  // pthread id of the owner, 0: none
  int m_Count;            // nesting depth of the owner
  unsigned int m_Valid;   // 1: m_Mutex was initialised
};
