// Thread-monitor bookkeeping of the module's CThread objects: the CThread
// constructor and destructor (module code, the rest of CThread is the host's)
// and the four operations on the host's monitor table. The table belongs to
// the host; entries are changed only under their own mutex, the entry count
// and the search for an entry only under the table mutex, and the table mutex
// is always taken before an entry mutex.
#include "tasks/ThreadMonitor.h"

#include "frame/Trace.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace {

constexpr unsigned int kLastStatusSlot = 31;

const char* const kSetEntryStatusOverflow =
    "CTHREADMONITOR::SetEntryStatus(): WARNING: Status Counter overflow for Entry =%p !!!\n";
const char* const kExitedOverflow =
    "CTHREADMONITOR::SetEntryStatusExited(): WARNING: Status Counter overflow for Entry =%p !!!\n";

// The host registers every entry with a mutex; an entry whose mutex pointer
// was cleared (failed registration attempt) is used without one rather than
// dereferencing null.
void LockEntry(_CTHREADMONITOR_ENTRY* entry) {
  if (entry->m_pEntryMutex != nullptr) pthread_mutex_lock(entry->m_pEntryMutex);
}

void UnlockEntry(_CTHREADMONITOR_ENTRY* entry) {
  if (entry->m_pEntryMutex != nullptr) pthread_mutex_unlock(entry->m_pEntryMutex);
}

// Moves the status counter to the slot of the next status pair and returns
// it. A full history keeps the counter at the last slot, which is then
// rewritten from the slot before it, with a warning. Entry mutex held.
unsigned int AdvanceStatusCounter(_CTHREADMONITOR_ENTRY* entry, const char* overflowFormat) {
  if (entry->m_StatusCounter < kLastStatusSlot) {
    ++entry->m_StatusCounter;
  } else {
    // A counter beyond the last slot can only come from a damaged table;
    // pinning it keeps every index below in range.
    entry->m_StatusCounter = kLastStatusSlot;
    KORVEX_TRACE(1, overflowFormat, static_cast<void*>(entry));
  }
  return entry->m_StatusCounter;
}

// The entry of a handle is written whenever the host runs a monitor and the
// handle is set. The handle came from that monitor's table, which the host
// keeps for the life of the process; checking it against the table's bounds
// would only hide an entry the host moved, not protect one.
bool HasMonitorEntry(const CTHREADMONITOR* monitor, const _CTHREADMONITOR_ENTRY* entry) {
  return monitor != nullptr && entry != nullptr;
}

unsigned int ThreadIdText(std::uint64_t id) { return static_cast<unsigned int>(id); }

const char* PrintableText(const char* text) { return text != nullptr ? text : "(null)"; }

char* HeapCopy(const char* text) { return text != nullptr ? strdup(text) : nullptr; }

}  // namespace

// ---------------------------------------------------------------------------
// CThread construction and destruction

CThread::CThread(unsigned int killStillAliveThread)
    : m_ThreadId(0),
      KillStillAliveThread(killStillAliveThread),
      m_Reserved0(0),
      m_Reserved1(-1),
      ThreadMonHandle(nullptr) {
  // Only threads that are killed when their object goes away are monitored.
  if (KillStillAliveThread == 0) return;
  // Without a monitor there is nothing to register and nothing to warn about.
  if (pThreadMonitor == nullptr) return;

  ThreadMonHandle = CThreadMonitor::RegisterEntry();
  if (ThreadMonHandle != nullptr) {
    CThreadMonitor::SetEntryStatus(ThreadMonHandle, 0, 0, THREADMON_THREAD_OBJECT, 0);
  } else {
    KORVEX_TRACE(
        1, "CThread::KillStillAliveThread=TRUE: RegisterEntry returned ThreadMonHandle = NULL\n");
  }
}

CThread::~CThread() {
  if (KillStillAliveThread != 0) Kill(0);

  _CTHREADMONITOR_ENTRY* const entry = ThreadMonHandle;
  if (HasMonitorEntry(pThreadMonitor, entry)) {
    LockEntry(entry);
    const unsigned int slot = AdvanceStatusCounter(entry, kSetEntryStatusOverflow);
    unsigned int entryStatus = entry->m_EntryStatus[slot - 1];
    unsigned int threadStatus = entry->m_ThreadStatus[slot - 1] | THREADMON_THREAD_DESTROYED;
    if ((threadStatus & THREADMON_THREAD_RUNNING) != 0) {
      // The object goes while the host still counts its thread as running.
      KORVEX_TRACE(1,
                   "CTHREADMONITOR::SetEntryStatus(): WARNING: Instance (%p) of a running thread = "
                   "0x%08X destroyed !!!\n",
                   static_cast<void*>(entry), ThreadIdText(entry->m_ThreadId));
    }
    threadStatus &= ~THREADMON_THREAD_OBJECT;
    entryStatus |= THREADMON_ENTRY_OLD | THREADMON_ENTRY_DESTROYED;
    entry->m_EntryStatus[slot] = entryStatus;
    entry->m_ThreadStatus[slot] = threadStatus;
    UnlockEntry(entry);
  }
  ThreadMonHandle = nullptr;
}

// ---------------------------------------------------------------------------
// CThreadMonitor

_CTHREADMONITOR_ENTRY* CThreadMonitor::RegisterEntry() {
  CTHREADMONITOR* const monitor = pThreadMonitor;
  if (monitor == nullptr) return nullptr;

  pthread_mutex_lock(monitor->m_pTableMutex);
  const int count = monitor->m_EntryCount;
  if (count < 0 || count >= CTHREADMONITOR::kMaxEntries) {
    pthread_mutex_unlock(monitor->m_pTableMutex);
    KORVEX_TRACE(
        1,
        "CTHREADMONITOR::RegisterEntry(): WARNING: cannot create an entry in CTHREADMONITOR "
        "(max value exceeded)\n");
    return nullptr;
  }

  _CTHREADMONITOR_ENTRY* const entry = &monitor->m_Entries[count];
  if (pthread_mutex_init(&entry->m_EntryMutex, nullptr) != 0) {
    entry->m_pEntryMutex = nullptr;
    pthread_mutex_unlock(monitor->m_pTableMutex);
    KORVEX_TRACE(
        1,
        "CTHREADMONITOR::RegisterEntry(): WARNING: cannot create an entry in CTHREADMONITOR "
        "(no entry mutex available)\n");
    return nullptr;
  }
  entry->m_pEntryMutex = &entry->m_EntryMutex;
  entry->m_StatusCounter = 0;
  entry->m_EntryStatus[0] = THREADMON_ENTRY_REGISTERED;
  entry->m_ThreadStatus[0] = 0;
  monitor->m_EntryCount = count + 1;
  pthread_mutex_unlock(monitor->m_pTableMutex);

  KORVEX_TRACE(1, "CTHREADMONITOR::RegisterEntry(): new entry (pentry = %p) registered\n",
               static_cast<void*>(entry));
  return entry;
}

void CThreadMonitor::SetEntryStatus(_CTHREADMONITOR_ENTRY* entry, unsigned int entrySet,
                                    unsigned int entryClear, unsigned int threadSet,
                                    unsigned int threadClear) {
  if (entry == nullptr) return;
  LockEntry(entry);
  const unsigned int slot = AdvanceStatusCounter(entry, kSetEntryStatusOverflow);
  entry->m_EntryStatus[slot] = (entry->m_EntryStatus[slot - 1] | entrySet) & ~entryClear;
  entry->m_ThreadStatus[slot] = (entry->m_ThreadStatus[slot - 1] | threadSet) & ~threadClear;
  UnlockEntry(entry);
}

void CThreadMonitor::SetThreadName(CThread& thread, const char* debugName, const char* qualifier) {
  _CTHREADMONITOR_ENTRY* const entry = thread.ThreadMonHandle;
  if (HasMonitorEntry(pThreadMonitor, entry)) {
    LockEntry(entry);
    std::free(entry->m_pszDebugName);
    entry->m_pszDebugName = nullptr;
    std::free(entry->m_pszQualifier);
    entry->m_pszQualifier = nullptr;
    entry->m_pszDebugName = HeapCopy(debugName);
    entry->m_pszQualifier = HeapCopy(qualifier);
    UnlockEntry(entry);
  }
  KORVEX_TRACE(1, "CThread::SetThreadName: ThreadId = 0x%08X, DebugName = %s, Qualifier = (%s)\n",
               ThreadIdText(static_cast<std::uint64_t>(thread.m_ThreadId)),
               PrintableText(debugName), PrintableText(qualifier));
}

namespace {

// An entry of the exiting thread, found under the table mutex: locks it and
// keeps the lock when the entry may be marked exited (it is not old, or the
// host is done with it); otherwise unlocks it again, with the warnings.
bool LockIfMarkable(_CTHREADMONITOR_ENTRY* entry, std::uint64_t self) {
  LockEntry(entry);
  const unsigned int current =
      entry->m_StatusCounter > kLastStatusSlot ? kLastStatusSlot : entry->m_StatusCounter;
  const unsigned int entryStatus = entry->m_EntryStatus[current];
  const unsigned int threadStatus = entry->m_ThreadStatus[current];
  if ((entryStatus & THREADMON_ENTRY_OLD) == 0) return true;
  KORVEX_TRACE(1,
               "CTHREADMONITOR::SetEntryStatusExited(): WARNING: an old entry (Handle = %p, "
               "EntryStatus = 0x%08x, ThreadStatus = 0x%08x) for ThreadId = 0x%08X found\n",
               static_cast<void*>(entry), entryStatus, threadStatus, ThreadIdText(self));
  const unsigned int busy =
      THREADMON_THREAD_EXITED | THREADMON_THREAD_HOST_BUSY_A | THREADMON_THREAD_HOST_BUSY_B;
  if ((threadStatus & busy) == 0) return true;
  UnlockEntry(entry);
  KORVEX_TRACE(1,
               "CTHREADMONITOR::SetEntryStatusExited(): WARNING: Don't touch an old entry "
               "(Handle = %p, EntryStatus = 0x%08x, ThreadStatus = 0x%08x, ThreadId = 0x%08X)\n",
               static_cast<void*>(entry), entryStatus, threadStatus, ThreadIdText(self));
  return false;
}

// Table mutex held. The same thread id can appear more than once: ids are
// reused, and an entry of an ended thread stays in the table. The first
// entry that is not old wins; an old one only when the host is done with
// it. The entry comes back locked; null: none.
_CTHREADMONITOR_ENTRY* LockExitingEntry(CTHREADMONITOR* monitor, std::uint64_t self) {
  int count = monitor->m_EntryCount;
  if (count > CTHREADMONITOR::kMaxEntries) count = CTHREADMONITOR::kMaxEntries;
  for (int i = 0; i < count; ++i) {
    _CTHREADMONITOR_ENTRY* const entry = &monitor->m_Entries[i];
    if (entry->m_ThreadId == self && LockIfMarkable(entry, self)) return entry;
  }
  return nullptr;
}

// Marks the locked entry exited, unlocks it and the table mutex, and traces.
void MarkExitedAndUnlock(CTHREADMONITOR* monitor, _CTHREADMONITOR_ENTRY* chosen,
                         std::uint64_t self) {
  const unsigned int slot = AdvanceStatusCounter(chosen, kExitedOverflow);
  const unsigned int threadStatus =
      (chosen->m_ThreadStatus[slot - 1] | THREADMON_THREAD_EXITED) & ~THREADMON_THREAD_RUNNING;
  const unsigned int entryStatus =
      chosen->m_EntryStatus[slot - 1] | THREADMON_ENTRY_OLD | THREADMON_ENTRY_EXITED;
  chosen->m_ThreadStatus[slot] = threadStatus;
  chosen->m_EntryStatus[slot] = entryStatus;
  UnlockEntry(chosen);
  // ThreadCounter belongs to the table mutex; its value for the trace is
  // taken under the same lock so the line shows this thread's count.
  const int threadCounter = --ThreadCounter;
  pthread_mutex_unlock(monitor->m_pTableMutex);
  KORVEX_TRACE(1,
               "CTHREADMONITOR::SetEntryStatusExited(): Status for entry, Handle = %p changed "
               "(EntryStatus = 0x%08x, ThreadStatus = 0x%08x, ThreadId = 0x%08X, "
               "ThreadCounter = %d)\n",
               static_cast<void*>(chosen), entryStatus, threadStatus, ThreadIdText(self),
               threadCounter);
}

}  // namespace

void CThreadMonitor::SetEntryStatusExited(unsigned int threadResult) {
  const std::uint64_t self = static_cast<std::uint64_t>(pthread_self());
  CTHREADMONITOR* const monitor = pThreadMonitor;

  if (monitor != nullptr) {
    pthread_mutex_lock(monitor->m_pTableMutex);
    _CTHREADMONITOR_ENTRY* const chosen = LockExitingEntry(monitor, self);
    if (chosen != nullptr) {
      MarkExitedAndUnlock(monitor, chosen, self);
    } else {
      pthread_mutex_unlock(monitor->m_pTableMutex);
      KORVEX_TRACE(1,
                   "CTHREADMONITOR::SetEntryStatusExited(): WARNING: no corresponding entry for "
                   "ThreadId = 0x%08X found\n",
                   ThreadIdText(self));
    }
  }

  KORVEX_TRACE(1, "THREAD_RETURN: ## INFO: Thread = 0x%08X exited, Return = 0x%08x##\n",
               ThreadIdText(self), threadResult);
}
