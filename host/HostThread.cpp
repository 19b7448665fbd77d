// The stand-alone host's threads: CThread::Start, WaitForTermination and
// Kill (construction and destruction are module code), and the host's
// thread-monitor table behind pThreadMonitor and ThreadCounter.
//
// Every started thread stays joinable and is tracked in a host-side table
// keyed by its CThread object, whatever the caller's "detached" argument
// says: Kill must be able to wait for a cancelled thread to finish
// unwinding, and a joined thread's id must never be probed again (see
// ForgetThreadId).
#include "frame/HostServices.h"
#include "frame/Trace.h"
#include "host/HostControl.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <sched.h>

CTHREADMONITOR* pThreadMonitor = nullptr;
int ThreadCounter = 0;

namespace {

// Kill waits this long for a cancelled thread to unwind before it gives the
// thread up (detaches it). Unwinding normally takes microseconds; the bound
// only matters for a thread that disabled cancellation and never comes back.
constexpr auto kKillUnwindLimit = std::chrono::seconds(5);

// The smallest stack a host thread gets. The module asks for small stacks
// (a size in KB); sanitizer builds and deep RapidJSON recursion need more,
// so the request is a lower bound on top of the system default.
constexpr std::size_t kMinimumStack = 1024 * 1024;

struct CThreadRecord {
  void* (*m_Function)(void*) = nullptr;
  void* m_Argument = nullptr;
  pthread_t m_Id{};

  std::mutex m_Mutex;  // guards m_Go and m_Ended
  std::condition_variable m_Changed;
  bool m_Go = false;       // Start has finished the bookkeeping
  bool m_Abandon = false;  // Start failed after creating: do not run
  // The thread function returned or unwound. Written and read under
  // m_Mutex like m_Go, and atomic besides: a thread cancelled inside a
  // blocking call that ThreadSanitizer intercepts (a sleep, poll, read) is
  // left with that runtime's per-thread state of the abandoned call, and
  // the race detector no longer sees its locking. The write while it
  // unwinds would then be taken for a race with every earlier read; an
  // atomic access never is.
  std::atomic<bool> m_Ended{false};

  // Exactly one caller may join (or detach) the thread; whoever flips this
  // first owns the id from then on. Cancelling or joining an id that was
  // already joined would be a use-after-free inside the thread library.
  std::atomic<bool> m_Claimed{false};
};

using CRecordPtr = std::shared_ptr<CThreadRecord>;

std::mutex& TableMutex() {
  static std::mutex* const mutex = new std::mutex;
  return *mutex;
}

std::map<const CThread*, CRecordPtr>& Table() {
  static auto* const table = new std::map<const CThread*, CRecordPtr>;
  return *table;
}

// Marks the record ended when the thread function returns and also when the
// thread is cancelled: forced unwinding runs this destructor.
class CEndMarker {
 public:
  explicit CEndMarker(CThreadRecord& record) : m_Record(record) {}
  ~CEndMarker() {
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
    {
      std::lock_guard<std::mutex> lock(m_Record.m_Mutex);
      m_Record.m_Ended = true;
    }
    m_Record.m_Changed.notify_all();
  }
  CEndMarker(const CEndMarker&) = delete;
  CEndMarker& operator=(const CEndMarker&) = delete;

 private:
  CThreadRecord& m_Record;
};

// Runs on the new thread. It holds the thread function back until Start has
// written the thread id into the CThread and the monitor entry, so that a
// function that returns at once still finds its own entry (the module's exit
// bookkeeping looks the entry up by thread id).
void* Trampoline(void* parameter) {
  CRecordPtr record = std::move(*static_cast<CRecordPtr*>(parameter));
  delete static_cast<CRecordPtr*>(parameter);

  // No cancellation while waiting for the go signal: a condition-variable
  // wait must not be unwound through (it is noexcept in the library). A Kill
  // that comes this early takes effect at the function's first
  // cancellation point.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  {
    std::unique_lock<std::mutex> lock(record->m_Mutex);
    record->m_Changed.wait(lock, [&] { return record->m_Go; });
    if (record->m_Abandon) {
      record->m_Ended = true;
      lock.unlock();
      record->m_Changed.notify_all();
      return nullptr;
    }
  }
  CEndMarker marker(*record);
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
  return record->m_Function(record->m_Argument);
}

// After a join the id names freed thread-library memory; the module's alive
// test (m_ThreadId != 0 && pthread_getschedparam(m_ThreadId, ...) == 0)
// must then see 0 instead of probing a dangling descriptor.
void ForgetThreadId(CThread& thread) { thread.m_ThreadId = pthread_t{}; }

bool SameThread(pthread_t a, pthread_t b) { return pthread_equal(a, b) != 0; }

// The record of thread's running or ended-but-unjoined thread, or null. A
// record left behind by an earlier CThread at the same address (an object
// destroyed without Kill) does not belong to this one: it is released here.
CRecordPtr FindRecordLocked(const CThread& thread) {
  auto& table = Table();
  auto found = table.find(&thread);
  if (found == table.end()) return nullptr;
  CRecordPtr record = found->second;
  if (thread.m_ThreadId != pthread_t{} && SameThread(record->m_Id, thread.m_ThreadId))
    return record;
  table.erase(found);
  if (!record->m_Claimed.exchange(true)) pthread_detach(record->m_Id);
  return nullptr;
}

void EraseRecord(const CThread& thread, const CRecordPtr& record) {
  std::lock_guard<std::mutex> lock(TableMutex());
  auto found = Table().find(&thread);
  if (found != Table().end() && found->second == record) Table().erase(found);
}

// Waits for the record's end flag; true when the thread function has ended.
bool WaitEnded(CThreadRecord& record, unsigned int timeoutMs) {
  std::unique_lock<std::mutex> lock(record.m_Mutex);
  if (timeoutMs == CEvent::kInfinite) {
    record.m_Changed.wait(lock, [&] { return record.m_Ended.load(); });
    return true;
  }
  return record.m_Changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                   [&] { return record.m_Ended.load(); });
}

bool HasEnded(CThreadRecord& record) {
  std::lock_guard<std::mutex> lock(record.m_Mutex);
  return record.m_Ended;
}

// Cancels the claimed thread and joins it; false when it has not ended
// within kKillUnwindLimit.
bool CancelAndJoin(CThreadRecord& record) {
  pthread_cancel(record.m_Id);
  // The end of a cancelled thread is learnt from the join itself, not from
  // the end flag it sets while it unwinds (see m_Ended): its locking may be
  // invisible to ThreadSanitizer, a join never is. The join's deadline is
  // on the wall clock: that is the clock pthread_timedjoin_np takes.
  timespec deadline{};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += static_cast<time_t>(kKillUnwindLimit.count());
  if (pthread_timedjoin_np(record.m_Id, nullptr, &deadline) == 0) return true;
  // It never reached a cancellation point (or blocks with cancellation
  // disabled). Joining would block for good; the thread is given up and left
  // to end on its own, and the object forgets it.
  pthread_detach(record.m_Id);
  KORVEX_TRACE(1, "\nCThread::Kill: ## WARNING: thread 0x%08X did not end within %d s - detached",
               static_cast<unsigned int>(record.m_Id), static_cast<int>(kKillUnwindLimit.count()));
  return false;
}

// The host's part of a thread's start in the monitor: thread id and the
// running bit in a new status pair of the entry, and one more live thread
// in ThreadCounter. Table mutex before entry mutex, as everywhere.
void RecordStartInMonitor(CThread& thread, pthread_t id) {
  CTHREADMONITOR* const monitor = pThreadMonitor;
  _CTHREADMONITOR_ENTRY* const entry = thread.ThreadMonHandle;
  if (monitor == nullptr || entry == nullptr) return;

  pthread_mutex_lock(monitor->m_pTableMutex);
  // Only an entry of the installed table is written: a handle into a table
  // that was removed in the meantime points at freed memory.
  const int count = monitor->m_EntryCount;
  const bool inTable = count > 0 && count <= CTHREADMONITOR::kMaxEntries &&
                       entry >= &monitor->m_Entries[0] && entry < &monitor->m_Entries[count];
  if (inTable) {
    if (entry->m_pEntryMutex != nullptr) pthread_mutex_lock(entry->m_pEntryMutex);
    unsigned int slot = entry->m_StatusCounter;
    if (slot < 31) {
      ++slot;
    } else {
      slot = 31;
      KORVEX_TRACE(1,
                   "CTHREADMONITOR::SetEntryStatus(): WARNING: Status Counter overflow for Entry "
                   "=%p !!!\n",
                   static_cast<void*>(entry));
    }
    entry->m_StatusCounter = slot;
    entry->m_EntryStatus[slot] = entry->m_EntryStatus[slot - 1];
    entry->m_ThreadStatus[slot] = entry->m_ThreadStatus[slot - 1] | THREADMON_THREAD_RUNNING;
    entry->m_ThreadId = static_cast<std::uint64_t>(id);
    if (entry->m_pEntryMutex != nullptr) pthread_mutex_unlock(entry->m_pEntryMutex);
    ++ThreadCounter;
  }
  pthread_mutex_unlock(monitor->m_pTableMutex);
}

// Creates the joinable thread that runs record's function once it is let
// go, on a stack of at least stackKb KB (and never below kMinimumStack).
bool CreateThread(const CRecordPtr& record, unsigned long stackKb, pthread_t& id) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  std::size_t stackSize = 0;
  pthread_attr_getstacksize(&attributes, &stackSize);
  if (stackSize < kMinimumStack) stackSize = kMinimumStack;
  if (stackKb > stackSize / 1024) stackSize = static_cast<std::size_t>(stackKb) * 1024;
  pthread_attr_setstacksize(&attributes, stackSize);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
  auto* parameter = new CRecordPtr(record);
  const int rc = pthread_create(&id, &attributes, Trampoline, parameter);
  pthread_attr_destroy(&attributes);
  if (rc != 0) delete parameter;
  return rc == 0;
}

// affinity is a CPU mask. Best effort: a mask the machine cannot honour
// leaves the thread on any CPU.
void SetAffinity(pthread_t id, unsigned long affinity) {
  cpu_set_t cpus;
  CPU_ZERO(&cpus);
  for (unsigned int cpu = 0; cpu < sizeof(affinity) * 8 && cpu < CPU_SETSIZE; ++cpu) {
    if ((affinity >> cpu) & 1ul) CPU_SET(cpu, &cpus);
  }
  pthread_setaffinity_np(id, sizeof(cpus), &cpus);
}

// The host's own table mutex: the module only ever sees a pointer to it.
pthread_mutex_t g_MonitorTableMutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

// priority and option have no meaning in the stand-alone host (threads run
// with the default policy; raising it needs privileges the host lacks).
// affinity is a CPU mask; 0 means any CPU. detached is ignored: threads stay
// joinable so that WaitForTermination and Kill can join them.
int CThread::Start(void* (*threadFunction)(void*), void* argument, unsigned long stackKb,
                   int /*priority*/, unsigned int /*option*/, unsigned long affinity,
                   int /*detached*/) {
  if (threadFunction == nullptr) return 0;

  auto record = std::make_shared<CThreadRecord>();
  record->m_Function = threadFunction;
  record->m_Argument = argument;

  std::unique_lock<std::mutex> tableLock(TableMutex());
  if (CRecordPtr previous = FindRecordLocked(*this)) {
    if (!HasEnded(*previous)) return 0;  // its thread still runs: nothing is started twice
    // Ended but never waited for: join it now (its function has returned,
    // so this does not block for long) before the object takes a new one.
    Table().erase(this);
    if (!previous->m_Claimed.exchange(true)) pthread_join(previous->m_Id, nullptr);
    ForgetThreadId(*this);
  }

  pthread_t id{};
  if (!CreateThread(record, stackKb, id)) return 0;
  record->m_Id = id;
  if (affinity != 0) SetAffinity(id, affinity);
  m_ThreadId = id;
  RecordStartInMonitor(*this, id);
  Table()[this] = record;
  tableLock.unlock();

  {
    std::lock_guard<std::mutex> lock(record->m_Mutex);
    record->m_Go = true;
  }
  record->m_Changed.notify_all();
  return 1;
}

int CThread::WaitForTermination(unsigned int timeoutMs) {
  CRecordPtr record;
  {
    std::lock_guard<std::mutex> lock(TableMutex());
    record = FindRecordLocked(*this);
  }
  if (record == nullptr) return 1;                         // no thread of this object runs
  if (SameThread(record->m_Id, pthread_self())) return 0;  // a thread cannot outwait itself

  if (!WaitEnded(*record, timeoutMs)) return 0;
  if (!record->m_Claimed.exchange(true)) {
    pthread_join(record->m_Id, nullptr);
    EraseRecord(*this, record);
    ForgetThreadId(*this);
  }
  return 1;
}

// exitCode has no counterpart for a POSIX thread ended from outside. The
// thread is cancelled: it unwinds from its next cancellation point (a wait
// on an event, a wait for a child process, a sleep, I/O), running its
// destructors; catch-all handlers in its path must rethrow
// abi::__forced_unwind. A thread cannot kill itself through its own object.
int CThread::Kill(unsigned int /*exitCode*/) {
  CRecordPtr record;
  {
    std::lock_guard<std::mutex> lock(TableMutex());
    record = FindRecordLocked(*this);
  }
  if (record == nullptr) return 0;
  if (SameThread(record->m_Id, pthread_self())) return 0;
  if (record->m_Claimed.exchange(true)) return 0;  // another caller is joining it right now

  int result = 0;
  if (HasEnded(*record)) {
    pthread_join(record->m_Id, nullptr);  // it returned by itself: nothing live to end
  } else {
    result = CancelAndJoin(*record) ? 1 : 0;
  }
  EraseRecord(*this, record);
  ForgetThreadId(*this);
  return result;
}

// ---------------------------------------------------------------------------
// Control surface: the thread-monitor table.

namespace halvane {

namespace {

void FreeMonitor(CTHREADMONITOR* monitor) {
  if (monitor == nullptr) return;
  int count = monitor->m_EntryCount;
  if (count > CTHREADMONITOR::kMaxEntries) count = CTHREADMONITOR::kMaxEntries;
  for (int i = 0; i < count; ++i) {
    _CTHREADMONITOR_ENTRY& entry = monitor->m_Entries[i];
    if (entry.m_pEntryMutex != nullptr) pthread_mutex_destroy(entry.m_pEntryMutex);
    std::free(entry.m_pszDebugName);
    std::free(entry.m_pszQualifier);
  }
  std::free(monitor);
}

}  // namespace

void InstallThreadMonitor() {
  auto* monitor = static_cast<CTHREADMONITOR*>(std::calloc(1, sizeof(CTHREADMONITOR)));
  if (monitor == nullptr) return;  // pThreadMonitor stays as it was
  monitor->m_pTableMutex = &g_MonitorTableMutex;
  pthread_mutex_lock(&g_MonitorTableMutex);
  CTHREADMONITOR* const previous = pThreadMonitor;
  pThreadMonitor = monitor;
  ThreadCounter = 0;
  pthread_mutex_unlock(&g_MonitorTableMutex);
  FreeMonitor(previous);
}

void RemoveThreadMonitor() {
  pthread_mutex_lock(&g_MonitorTableMutex);
  CTHREADMONITOR* const previous = pThreadMonitor;
  pThreadMonitor = nullptr;
  pthread_mutex_unlock(&g_MonitorTableMutex);
  FreeMonitor(previous);
}

}  // namespace halvane
