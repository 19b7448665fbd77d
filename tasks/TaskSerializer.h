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

  // Steps of the worker loop and of termination; each runs on the thread
  // named in its comment and keeps the trace lines of its step.
  void SetAllLevelsEnabled(unsigned int enabled);
  // Worker: traces the wait, waits for the wake-up event; false when
  // termination was requested meanwhile.
  bool WaitForWakeup();
  // Worker, lock taken here: the highest serviced level's next record and
  // that level, or level -1 (and the wake-up event reset) when all are empty.
  _TaskRecord* TakeNextRecord(int& level);
  int FirstWaitingLevelLocked() const;
  // Worker: runs the record's task, sets its event, frees it, and tells the
  // derived class when that emptied the level's queue.
  void ProcessRecord(_TaskRecord* record, int level);
  void RunTask(_TaskRecord* record, int level);
  void SetExternalEvent(_TaskRecord* record);
  void FreeRecord(_TaskRecord* record);
  void NoteQueueEmpty(int level);
  // Any thread, lock held: forgets every queued record (see
  // TerminateSerialization), or frees them and the queues (destructor).
  void ClearQueuesLocked();
  void FreeQueuesLocked();

  // Calls call; whatever it throws is its failure, traced by failed, except
  // a thread cancellation's forced unwind, which must reach the thread's
  // start routine (swallowing it would abort the whole process).
  template <class Call, class Failed>
  static void CallGuarded(Call call, Failed failed);
};

// The member definitions, kept apart from the interface above.
#include "tasks/TaskSerializerImpl.h"
