// CTaskSerializer<T>: bounded task queues per priority level, worked off one
// task at a time by a single worker thread of the serializer's own.
//
// The module accepts a long request on the switch's thread, queues a private
// deep copy of it here and returns at once; the worker later hands the copy
// to the derived class's OnTaskExecution and frees it. Higher levels go
// first, a level is first in, first out. The queues, their lock, the
// enabling of levels and InsertTask are the passive half; StartSerialization,
// the worker loop, TerminateSerialization and destruction the active half.
//
// Destruction with a live worker: by the time this base's destructor runs
// (and its TerminateSerialization ends the worker), the derived part and its
// overrides are already gone. A derived class whose worker may still run
// calls QuiesceWorker at the start of its own destructor: it returns once the
// worker has left every call into the derived class and is held before the
// next one, and writes no trace, so that the base's destructor alone ends the
// worker with its usual lines.
#pragma once

#include "frame/HostServices.h"
#include "frame/Trace.h"
#include "tasks/CriticalSection.h"
#include "tasks/RingBuffer.h"
#include "tasks/ThreadMonitor.h"
#include "tasks/WorkerState.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cxxabi.h>
#include <memory>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

template <class T>
class CTaskSerializer {
 public:
  // A level number. Passed around as a signed 32-bit value: callers may hand
  // in numbers outside the table (they are refused), so the enumeration has
  // a fixed underlying type and every int is a valid value of it.
  enum _TaskPriority : int { TASK_PRIORITY_0 = 0 };

  static constexpr unsigned int TASK_LEVEL_COUNT = 1;
  static constexpr std::uint64_t TASK_QUEUE_SIZE = 160;

  // One element of the level table.
  struct _TaskLevel {
    CRingBuffer* m_pQueue;    // the level's queue, owned
    unsigned int m_Enabled;   // non-zero: InsertTask accepts tasks for this level
    unsigned int m_Serviced;  // non-zero: the worker takes tasks from this level
  };

  // One queued task: the caller's event and a private copy of its message.
  struct _TaskRecord {
    CEvent* m_pExternalEvent;  // not owned, may be null; set after the task ran
    T m_Task;                  // owned deep copy
  };

  CTaskSerializer();
  virtual ~CTaskSerializer();

  CTaskSerializer(const CTaskSerializer&) = delete;
  CTaskSerializer& operator=(const CTaskSerializer&) = delete;

  // Queues a deep copy of task at the given level; the worker sets
  // externalEvent (when not null) after the task has run. 1: queued;
  // 0: refused (level unknown or disabled, or its queue full). Any thread.
  int InsertTask(T& task, _TaskPriority priority, CEvent* externalEvent);

  // Starts the worker unless it is alive. Does not enable levels again.
  void StartSerialization();
  // With a live worker: disables all levels, drops all queued records, and
  // ends the worker (waiting for a running task for a while, then killing
  // it). Without one: only traces.
  void TerminateSerialization();

  // Runs one task on the worker thread, without the lock held.
  virtual void OnTaskExecution(T& task, _TaskPriority level) = 0;
  // A level's queue has become empty after a task of it ran (lock held).
  virtual void OnTaskQueueEmpty(_TaskPriority level);
  // InsertTask refused task because its level's queue is full (lock held).
  virtual void OnTaskQueueNodeOverrun(T& task, _TaskPriority level);
  virtual void OnSerializationStarted();
  virtual void OnSerializationStopped();

  // Thread function of the worker; serializer is the CTaskSerializer
  // (sub)object. Returns null.
  static void* Thread_RunTaskHandler(void* serializer);

 protected:
  // The worker loop; runs only on the worker thread.
  void TaskHandler();

  // The worker's thread id is set and the thread still exists. A thread that
  // has ended but was not yet joined no longer counts (its kernel id is gone).
  bool IsWorkerAlive();

  // For the destructor of a derived class, before its members go. With a
  // live worker: holds the worker before its next call into the derived
  // class and waits until it is out of the current one (idle, waiting for
  // the wake-up event). A task still running after the same grace that
  // TerminateSerialization gives it (100 ms + 2000 ms) is ended by killing
  // the worker. Writes no trace; the worker stays held until
  // TerminateSerialization (the base's destructor) releases it.
  void QuiesceWorker();

  bool TerminateRequested() const {
    return __atomic_load_n(&m_TerminateFlag, __ATOMIC_ACQUIRE) != 0;
  }

  static unsigned int TraceAddress(const void* address) {
    // The host's trace format prints addresses with "0x%X".
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(address));
  }

  static void DeleteRecord(_TaskRecord* record) { delete record; }

  // Members, in this order.
  _TaskLevel* m_pLevels;             // level table (array new), null if its allocation failed
  CCriticalSection m_Lock;           // guards the rings' indices and bytes
  CEvent m_WakeupEvent;              // manual reset: stays set until the worker resets it
  CThread m_Thread;                  // the worker
  unsigned int m_ThreadStartOption;  // passed to CThread::Start
  unsigned int m_LevelCount;         // elements of m_pLevels
  unsigned int m_TerminateFlag;      // 1: the worker is to leave its loop

  // Whether the worker may be inside a call into the derived class (from its
  // start to each wait for the wake-up event, and from each wake-up on), and
  // whether QuiesceWorker holds it before its next such call.
  CWorkerState m_WorkerState;

 private:
  // Marks the worker idle however it leaves TaskHandler, also when it is
  // killed: a dead worker must never be waited for.
  class CIdleOnExit {
   public:
    explicit CIdleOnExit(CTaskSerializer& serializer) : m_Serializer(serializer) {}
    ~CIdleOnExit() { m_Serializer.m_WorkerState.EnterIdle(); }
    CIdleOnExit(const CIdleOnExit&) = delete;
    CIdleOnExit& operator=(const CIdleOnExit&) = delete;

   private:
    CTaskSerializer& m_Serializer;
  };

  // Keeps a thread cancellation away from code that holds m_Lock: a worker
  // killed while it holds the lock would leave the lock owned by a thread
  // that no longer exists, and the next InsertTask or the destructor would
  // wait for it forever. A pending cancellation is acted on at the next
  // cancellation point after the scope.
  class CNoCancellation {
   public:
    CNoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_OldState); }
    ~CNoCancellation() { pthread_setcancelstate(m_OldState, nullptr); }
    CNoCancellation(const CNoCancellation&) = delete;
    CNoCancellation& operator=(const CNoCancellation&) = delete;

   private:
    int m_OldState = PTHREAD_CANCEL_ENABLE;
  };

  // Frees the record that is out of its queue when the worker is killed in
  // the middle of its task: the cancellation unwinds the worker's stack and
  // the record would otherwise be lost with it. A record is released from
  // the guard once the worker has deleted it itself.
  class CRecordInFlight {
   public:
    explicit CRecordInFlight(_TaskRecord* record) : m_pRecord(record) {}
    ~CRecordInFlight() { DeleteRecord(m_pRecord); }
    CRecordInFlight(const CRecordInFlight&) = delete;
    CRecordInFlight& operator=(const CRecordInFlight&) = delete;
    void Release() { m_pRecord = nullptr; }

   private:
    _TaskRecord* m_pRecord;
  };
};

// ---------------------------------------------------------------------------
// Queues

template <class T>
CTaskSerializer<T>::CTaskSerializer()
    : m_pLevels(nullptr),
      m_Lock(),
      m_WakeupEvent(0, 1, nullptr, nullptr),
      m_Thread(1),
      m_ThreadStartOption(0),
      m_LevelCount(TASK_LEVEL_COUNT),
      m_TerminateFlag(0) {
  m_pLevels = new (std::nothrow) _TaskLevel[m_LevelCount];
  if (m_pLevels != nullptr) {
    for (unsigned int level = 0; level < m_LevelCount; ++level) {
      // A ring that cannot be allocated leaves the level with no queue; its
      // tasks are refused as if the queue were full.
      m_pLevels[level].m_pQueue = new (std::nothrow) CRingBuffer(TASK_QUEUE_SIZE);
      __atomic_store_n(&m_pLevels[level].m_Enabled, 0u, __ATOMIC_RELAXED);
      m_pLevels[level].m_Serviced = 1;
    }
  }
  KORVEX_TRACE(4, "\nCTaskSerializer     : Enable all Tasks");
  if (m_pLevels != nullptr) {
    for (unsigned int level = 0; level < m_LevelCount; ++level) {
      __atomic_store_n(&m_pLevels[level].m_Enabled, 1u, __ATOMIC_RELEASE);
    }
  }
}

template <class T>
int CTaskSerializer<T>::InsertTask(T& task, _TaskPriority priority, CEvent* externalEvent) {
  const int level = static_cast<int>(priority);
  KORVEX_TRACE(4, "\nCTaskSerializer     : Task at level %d raised", level);

  // Made without the lock: the flags change only at construction and at
  // termination, and a task that slips in just before a termination empties
  // the queues is dropped with the others.
  if (m_pLevels == nullptr || level < 0 || static_cast<unsigned int>(level) >= m_LevelCount ||
      __atomic_load_n(&m_pLevels[level].m_Enabled, __ATOMIC_ACQUIRE) == 0) {
    KORVEX_TRACE(4, "\nCTaskSerializer     : Manager locked for Tasks at level %d. Task ignored!",
                 level);
    return 0;
  }

  // Copied before the lock is taken, so a large message does not hold up the
  // worker. Should the copy throw, the partly built record goes with the
  // unique_ptr and the queues are untouched.
  std::unique_ptr<_TaskRecord> record(new _TaskRecord());
  record->m_pExternalEvent = externalEvent;
  record->m_Task.CopyFrom(task);

  int result = 0;
  std::lock_guard<CCriticalSection> guard(m_Lock);
  CRingBuffer* queue = m_pLevels[level].m_pQueue;
  // Greater than or equal: a 160-byte ring takes 19 records although 20
  // would fit. The hosts have always worked with 19; keep the last slot free.
  if (queue == nullptr || queue->m_Used + sizeof(_TaskRecord*) >= queue->m_Size) {
    KORVEX_TRACE(1, "\nCTaskSerializer     : ## ERROR! Task queue for priority %d is full", level);
    OnTaskQueueNodeOverrun(task, priority);
    record.reset();
  } else {
    _TaskRecord* queued = record.get();
    queue->Write(&queued, sizeof(queued));
    record.release();
    KORVEX_TRACE(5, "\nCTaskSerializer     : Task with priority %d inserted into task queue!",
                 level);
    m_WakeupEvent.Set();
    result = 1;
  }
  return result;
}

template <class T>
void CTaskSerializer<T>::OnTaskQueueEmpty(_TaskPriority) {}

template <class T>
void CTaskSerializer<T>::OnTaskQueueNodeOverrun(T&, _TaskPriority) {}

template <class T>
void CTaskSerializer<T>::OnSerializationStarted() {}

template <class T>
void CTaskSerializer<T>::OnSerializationStopped() {}

// ---------------------------------------------------------------------------
// Worker

template <class T>
bool CTaskSerializer<T>::IsWorkerAlive() {
  if (m_Thread.m_ThreadId == 0) {
    return false;
  }
  int policy = 0;
  sched_param param{};
  return pthread_getschedparam(m_Thread.m_ThreadId, &policy, &param) == 0;
}

template <class T>
void CTaskSerializer<T>::StartSerialization() {
  KORVEX_TRACE(4, "\nCTaskSerializer     : StartSerialization!");
  if (IsWorkerAlive()) {
    return;
  }
  // Reset before the thread exists, and the worker waits before it scans:
  // tasks queued before this call therefore wait for the next InsertTask or
  // TerminateSerialization. Hosts rely on that order; keep it.
  m_WakeupEvent.Reset();
  __atomic_store_n(&m_TerminateFlag, 0u, __ATOMIC_RELEASE);
  // Busy from birth: the new thread calls OnSerializationStarted before its
  // first wait, possibly only after this function has returned.
  m_WorkerState.Starting();
  m_Thread.Start(&CTaskSerializer::Thread_RunTaskHandler, this, 83, 0, m_ThreadStartOption, 0, 1);
  // Lets the new thread begin before it is named in the thread monitor.
  usleep(100000);
  CThreadMonitor::SetThreadName(m_Thread, Debug.m_DebugName, "_TaskHndlr");
}

template <class T>
void* CTaskSerializer<T>::Thread_RunTaskHandler(void* serializer) {
  if (serializer != nullptr) {
    static_cast<CTaskSerializer*>(serializer)->TaskHandler();
  }
  CThreadMonitor::SetEntryStatusExited(0);
  return nullptr;
}

// The forced unwinding of a cancelled worker has no exception object, so the
// handlers that rethrow it bind their reference to null by design of the C++
// runtime; UndefinedBehaviorSanitizer's null check is kept off this function.
template <class T>
__attribute__((no_sanitize("null"))) void CTaskSerializer<T>::TaskHandler() {
  CIdleOnExit idleOnExit(*this);
  KORVEX_TRACE(4, "\nCTaskSerializer     : START THREAD TaskHandler()!");
  OnSerializationStarted();

  for (;;) {
    KORVEX_TRACE(4, "\nCTaskSerializer     : Waiting on task queue for next task ...");
    m_WorkerState.EnterIdle();
    m_WakeupEvent.Wait(0xFFFFFFFFu, 1);
    m_WorkerState.LeaveIdle();
    KORVEX_TRACE(4, "\nCTaskSerializer     : Wakeup from (any) task queue!");
    if (TerminateRequested()) {
      break;
    }
    KORVEX_TRACE(4, "\nCTaskSerializer     : Checking Task queue for Task records ..");

    _TaskRecord* record = nullptr;
    int level = -1;
    {
      CNoCancellation noCancel;
      std::lock_guard<CCriticalSection> guard(m_Lock);
      if (m_pLevels != nullptr) {
        for (int scan = static_cast<int>(m_LevelCount) - 1; scan >= 0; --scan) {
          CRingBuffer* queue = m_pLevels[scan].m_pQueue;
          if (m_pLevels[scan].m_Serviced != 0 && queue != nullptr &&
              queue->m_Used >= sizeof(_TaskRecord*)) {
            queue->Read(&record, sizeof(record));
            level = scan;
            break;
          }
        }
      }
      // Only an empty scan resets the event: after a task the next wait
      // returns at once, so queued tasks run without a further insert.
      if (level < 0) {
        m_WakeupEvent.Reset();
      }
    }
    if (level < 0) {
      if (TerminateRequested()) {
        break;
      }
      continue;
    }

    const _TaskPriority priority = static_cast<_TaskPriority>(level);
    CRecordInFlight inFlight(record);

    // The catch-alls on the worker let a thread cancellation pass: its
    // forced unwind must reach the thread's start routine, and swallowing it
    // would abort the whole process. Everything else is the task's failure,
    // traced, and the worker goes on.
    try {
      KORVEX_TRACE(5, "\nCTaskSerializer     : Process Task (Record 0x%X) at level %d",
                   TraceAddress(record), level);
      if (record != nullptr) {
        OnTaskExecution(record->m_Task, priority);
      }
      KORVEX_TRACE(5, "\nCTaskSerializer     : Task (Record 0x%X) at level %d completed",
                   TraceAddress(record), level);
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      KORVEX_TRACE(1, "\n\nCTaskSerializer     : ## EXCEPTION in OnTaskExecution()! ##");
    }

    CEvent* externalEvent = record != nullptr ? record->m_pExternalEvent : nullptr;
    if (externalEvent != nullptr) {
      try {
        if (externalEvent->Set() != 0) {
          KORVEX_TRACE(5, "\nCTaskSerializer     : External event object 0x%X set!",
                       TraceAddress(externalEvent));
        } else {
          KORVEX_TRACE(1, "\nCTaskSerializer     : ERROR setting external event object 0x%X!",
                       TraceAddress(externalEvent));
        }
      } catch (abi::__forced_unwind&) {
        throw;
      } catch (...) {
        KORVEX_TRACE(1,
                     "\n\nCTaskSerializer     : ## EXCEPTION setting external event object 0x%X!",
                     TraceAddress(externalEvent));
      }
    }

    inFlight.Release();
    try {
      DeleteRecord(record);
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      KORVEX_TRACE(1, "\n\nCTaskSerializer     : ## EXCEPTION deleting task data record!");
    }
    record = nullptr;

    {
      CNoCancellation noCancel;
      std::lock_guard<CCriticalSection> guard(m_Lock);
      CRingBuffer* queue = m_pLevels[level].m_pQueue;
      if (queue != nullptr && queue->m_Used == 0) {
        OnTaskQueueEmpty(priority);
      }
    }

    if (TerminateRequested()) {
      break;
    }
  }

  OnSerializationStopped();
  KORVEX_TRACE(4, "\nCTaskSerializer     : EXIT THREAD TaskHandler()!");
}

template <class T>
void CTaskSerializer<T>::QuiesceWorker() {
  if (!IsWorkerAlive()) {
    return;
  }
  // Without a mutual wait on this state the derived destructor could free
  // members a task still uses, and the change of the object's dynamic type
  // on the way down would race with the worker's virtual calls.
  // The grace of a running task in TerminateSerialization: 100 ms + 2000 ms.
  if (!m_WorkerState.HoldAndWaitIdle(2100)) {
    // A task still runs (a host that deletes a working module without Stop):
    // it is ended as Stop would end it, with the thread. A tool process it
    // started is not touched here; ending that is Stop's job.
    m_Thread.Kill(0);
  }
}

template <class T>
void CTaskSerializer<T>::TerminateSerialization() {
  KORVEX_TRACE(4, "\nCTaskSerializer     : TerminateSerialization!");
  if (IsWorkerAlive()) {
    KORVEX_TRACE(4, "\nCTaskSerializer     : Disable all Tasks");
    if (m_pLevels != nullptr) {
      for (unsigned int level = 0; level < m_LevelCount; ++level) {
        __atomic_store_n(&m_pLevels[level].m_Enabled, 0u, __ATOMIC_RELEASE);
      }
    }
    {
      std::lock_guard<CCriticalSection> guard(m_Lock);
      if (m_pLevels != nullptr) {
        for (unsigned int level = 0; level < m_LevelCount; ++level) {
          if (m_pLevels[level].m_pQueue != nullptr) {
            m_pLevels[level].m_pQueue->Clear();
          }
        }
      }
      // The records that were queued are forgotten here: neither run, nor
      // answered through their events, nor freed. Whoever waited for them is
      // expected to be gone by now, and a record freed here could still be
      // looked at by a host that kept its address. Hosts rely on this; keep it.
      KORVEX_TRACE(4, "\nCTaskSerializer     : All pending tasks removed from queues!");
    }
    // The event set after the flag is what makes the worker see the flag.
    __atomic_store_n(&m_TerminateFlag, 1u, __ATOMIC_RELEASE);
    m_WakeupEvent.Set();
    // A worker held by QuiesceWorker goes on now: it sees the flag and
    // leaves without touching a queue.
    m_WorkerState.Release();

    usleep(100000);
    m_Thread.WaitForTermination(2000);
    m_Thread.Kill(0);
  }
  KORVEX_TRACE(5, "\nCTaskSerializer     :   terminated");
}

template <class T>
CTaskSerializer<T>::~CTaskSerializer() {
  TerminateSerialization();
  {
    std::lock_guard<CCriticalSection> guard(m_Lock);
    if (m_pLevels != nullptr) {
      // Only records of a serializer whose worker never ran (or had already
      // gone) are still here; a live worker's termination dropped its own.
      for (unsigned int level = 0; level < m_LevelCount; ++level) {
        CRingBuffer* queue = m_pLevels[level].m_pQueue;
        while (queue != nullptr && queue->m_Used >= sizeof(_TaskRecord*)) {
          _TaskRecord* record = nullptr;
          queue->Read(&record, sizeof(record));
          if (record != nullptr) {
            DeleteRecord(record);
          }
        }
      }
      for (unsigned int level = 0; level < m_LevelCount; ++level) {
        CRingBuffer* queue = m_pLevels[level].m_pQueue;
        if (queue != nullptr) {
          queue->FreeStorage();
          delete queue;
          m_pLevels[level].m_pQueue = nullptr;
        }
      }
      delete[] m_pLevels;
      m_pLevels = nullptr;
    }
  }
  KORVEX_TRACE(4, "\n\nCTaskSerializer     : Class destroyed!");
}
