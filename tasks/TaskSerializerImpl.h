// The definitions of CTaskSerializer<T>'s members, included at the end of
// tasks/TaskSerializer.h (include that header, not this one). The queues
// first, then the worker loop in its steps, then termination and
// destruction. Trace lines and their order are what the hosts' logs and the
// tests read; each step keeps its own.
#pragma once

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
  SetAllLevelsEnabled(1u);
}

template <class T>
void CTaskSerializer<T>::SetAllLevelsEnabled(unsigned int enabled) {
  if (m_pLevels == nullptr) return;
  for (unsigned int level = 0; level < m_LevelCount; ++level) {
    __atomic_store_n(&m_pLevels[level].m_Enabled, enabled, __ATOMIC_RELEASE);
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

  std::lock_guard<CCriticalSection> guard(m_Lock);
  CRingBuffer* queue = m_pLevels[level].m_pQueue;
  // Greater than or equal: a 160-byte ring takes 19 records although 20
  // would fit. The hosts have always worked with 19; keep the last slot free.
  if (queue == nullptr || queue->m_Used + sizeof(_TaskRecord*) >= queue->m_Size) {
    KORVEX_TRACE(1, "\nCTaskSerializer     : ## ERROR! Task queue for priority %d is full", level);
    OnTaskQueueNodeOverrun(task, priority);
    return 0;  // the record goes with its unique_ptr
  }
  _TaskRecord* queued = record.get();
  queue->Write(&queued, sizeof(queued));
  record.release();
  KORVEX_TRACE(5, "\nCTaskSerializer     : Task with priority %d inserted into task queue!", level);
  m_WakeupEvent.Set();
  return 1;
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

template <class T>
void CTaskSerializer<T>::TaskHandler() {
  CIdleOnExit idleOnExit(*this);
  KORVEX_TRACE(4, "\nCTaskSerializer     : START THREAD TaskHandler()!");
  OnSerializationStarted();

  while (WaitForWakeup()) {
    KORVEX_TRACE(4, "\nCTaskSerializer     : Checking Task queue for Task records ..");
    int level = -1;
    _TaskRecord* record = TakeNextRecord(level);
    if (level >= 0) {
      ProcessRecord(record, level);
    }
    if (TerminateRequested()) {
      break;
    }
  }

  OnSerializationStopped();
  KORVEX_TRACE(4, "\nCTaskSerializer     : EXIT THREAD TaskHandler()!");
}

template <class T>
bool CTaskSerializer<T>::WaitForWakeup() {
  KORVEX_TRACE(4, "\nCTaskSerializer     : Waiting on task queue for next task ...");
  m_WorkerState.EnterIdle();
  m_WakeupEvent.Wait(0xFFFFFFFFu, 1);
  m_WorkerState.LeaveIdle();
  KORVEX_TRACE(4, "\nCTaskSerializer     : Wakeup from (any) task queue!");
  return !TerminateRequested();
}

template <class T>
typename CTaskSerializer<T>::_TaskRecord* CTaskSerializer<T>::TakeNextRecord(int& level) {
  CNoCancellation noCancel;
  std::lock_guard<CCriticalSection> guard(m_Lock);
  _TaskRecord* record = nullptr;
  level = FirstWaitingLevelLocked();
  if (level >= 0) {
    m_pLevels[level].m_pQueue->Read(&record, sizeof(record));
  } else {
    // Only an empty scan resets the event: after a task the next wait
    // returns at once, so queued tasks run without a further insert.
    m_WakeupEvent.Reset();
  }
  return record;
}

template <class T>
int CTaskSerializer<T>::FirstWaitingLevelLocked() const {
  if (m_pLevels == nullptr) return -1;
  for (int scan = static_cast<int>(m_LevelCount) - 1; scan >= 0; --scan) {
    const CRingBuffer* queue = m_pLevels[scan].m_pQueue;
    if (m_pLevels[scan].m_Serviced != 0 && queue != nullptr &&
        queue->m_Used >= sizeof(_TaskRecord*)) {
      return scan;
    }
  }
  return -1;
}

template <class T>
void CTaskSerializer<T>::ProcessRecord(_TaskRecord* record, int level) {
  // Frees the record should the worker be killed inside its task.
  CRecordInFlight inFlight(record);
  RunTask(record, level);
  SetExternalEvent(record);
  inFlight.Release();
  FreeRecord(record);
  NoteQueueEmpty(level);
}

// The forced unwinding of a cancelled worker has no exception object, so the
// handlers that rethrow it bind their reference to null by design of the C++
// runtime; UndefinedBehaviorSanitizer's null check is kept off this function.
template <class T>
template <class Call, class Failed>
__attribute__((no_sanitize("null"))) void CTaskSerializer<T>::CallGuarded(Call call,
                                                                          Failed failed) {
  try {
    call();
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    failed();
  }
}

template <class T>
void CTaskSerializer<T>::RunTask(_TaskRecord* record, int level) {
  CallGuarded(
      [&] {
        KORVEX_TRACE(5, "\nCTaskSerializer     : Process Task (Record 0x%X) at level %d",
                     TraceAddress(record), level);
        if (record != nullptr) {
          OnTaskExecution(record->m_Task, static_cast<_TaskPriority>(level));
        }
        KORVEX_TRACE(5, "\nCTaskSerializer     : Task (Record 0x%X) at level %d completed",
                     TraceAddress(record), level);
      },
      [] { KORVEX_TRACE(1, "\n\nCTaskSerializer     : ## EXCEPTION in OnTaskExecution()! ##"); });
}

template <class T>
void CTaskSerializer<T>::SetExternalEvent(_TaskRecord* record) {
  CEvent* externalEvent = record != nullptr ? record->m_pExternalEvent : nullptr;
  if (externalEvent == nullptr) return;
  CallGuarded(
      [&] {
        if (externalEvent->Set() != 0) {
          KORVEX_TRACE(5, "\nCTaskSerializer     : External event object 0x%X set!",
                       TraceAddress(externalEvent));
        } else {
          KORVEX_TRACE(1, "\nCTaskSerializer     : ERROR setting external event object 0x%X!",
                       TraceAddress(externalEvent));
        }
      },
      [&] {
        KORVEX_TRACE(1,
                     "\n\nCTaskSerializer     : ## EXCEPTION setting external event object 0x%X!",
                     TraceAddress(externalEvent));
      });
}

template <class T>
void CTaskSerializer<T>::FreeRecord(_TaskRecord* record) {
  CallGuarded(
      [&] { DeleteRecord(record); },
      [] { KORVEX_TRACE(1, "\n\nCTaskSerializer     : ## EXCEPTION deleting task data record!"); });
}

template <class T>
void CTaskSerializer<T>::NoteQueueEmpty(int level) {
  CNoCancellation noCancel;
  std::lock_guard<CCriticalSection> guard(m_Lock);
  CRingBuffer* queue = m_pLevels[level].m_pQueue;
  if (queue != nullptr && queue->m_Used == 0) {
    OnTaskQueueEmpty(static_cast<_TaskPriority>(level));
  }
}

// ---------------------------------------------------------------------------
// Termination and destruction

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
    SetAllLevelsEnabled(0u);
    {
      std::lock_guard<CCriticalSection> guard(m_Lock);
      ClearQueuesLocked();
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

// The records that were queued are forgotten here: neither run, nor
// answered through their events, nor freed. Whoever waited for them is
// expected to be gone by now, and a record freed here could still be looked
// at by a host that kept its address. Hosts rely on this; keep it.
template <class T>
void CTaskSerializer<T>::ClearQueuesLocked() {
  if (m_pLevels == nullptr) return;
  for (unsigned int level = 0; level < m_LevelCount; ++level) {
    if (m_pLevels[level].m_pQueue != nullptr) {
      m_pLevels[level].m_pQueue->Clear();
    }
  }
}

// Only records of a serializer whose worker never ran (or had already gone)
// are still queued here; a live worker's termination dropped its own.
template <class T>
void CTaskSerializer<T>::FreeQueuesLocked() {
  for (unsigned int level = 0; level < m_LevelCount; ++level) {
    CRingBuffer* queue = m_pLevels[level].m_pQueue;
    if (queue == nullptr) continue;
    while (queue->m_Used >= sizeof(_TaskRecord*)) {
      _TaskRecord* record = nullptr;
      queue->Read(&record, sizeof(record));
      DeleteRecord(record);  // null is fine
    }
    queue->FreeStorage();
    delete queue;
    m_pLevels[level].m_pQueue = nullptr;
  }
}

template <class T>
CTaskSerializer<T>::~CTaskSerializer() {
  TerminateSerialization();
  {
    std::lock_guard<CCriticalSection> guard(m_Lock);
    if (m_pLevels != nullptr) {
      FreeQueuesLocked();
      delete[] m_pLevels;
      m_pLevels = nullptr;
    }
  }
  KORVEX_TRACE(4, "\n\nCTaskSerializer     : Class destroyed!");
}
