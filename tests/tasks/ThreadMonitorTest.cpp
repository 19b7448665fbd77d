// Tests of the thread-monitor bookkeeping: CThread construction and
// destruction, RegisterEntry, SetEntryStatus, SetThreadName and
// SetEntryStatusExited, driven on a fresh host table (and, where a real
// thread matters, through the host's CThread::Start). Every trace of this
// bookkeeping is a level-1 line, so the fixture lets only level 1 through.
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "tasks/ThreadMonitor.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <ostream>
#include <pthread.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string Ptr(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

std::string Upper8(unsigned int value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08X", value);
  return text;
}

std::string Lower8(unsigned int value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", value);
  return text;
}

unsigned int SelfId() { return static_cast<unsigned int>(pthread_self()); }

std::string Registered(const _CTHREADMONITOR_ENTRY* entry) {
  return "CTHREADMONITOR::RegisterEntry(): new entry (pentry = " + Ptr(entry) + ") registered\n";
}

std::string SetStatusOverflow(const _CTHREADMONITOR_ENTRY* entry) {
  return "CTHREADMONITOR::SetEntryStatus(): WARNING: Status Counter overflow for Entry =" +
         Ptr(entry) + " !!!\n";
}

std::string ExitedOverflow(const _CTHREADMONITOR_ENTRY* entry) {
  return "CTHREADMONITOR::SetEntryStatusExited(): WARNING: Status Counter overflow for Entry =" +
         Ptr(entry) + " !!!\n";
}

std::string OldEntryFound(const _CTHREADMONITOR_ENTRY* entry, unsigned int entryStatus,
                          unsigned int threadStatus, unsigned int id) {
  return "CTHREADMONITOR::SetEntryStatusExited(): WARNING: an old entry (Handle = " + Ptr(entry) +
         ", EntryStatus = " + Lower8(entryStatus) + ", ThreadStatus = " + Lower8(threadStatus) +
         ") for ThreadId = " + Upper8(id) + " found\n";
}

std::string DontTouch(const _CTHREADMONITOR_ENTRY* entry, unsigned int entryStatus,
                      unsigned int threadStatus, unsigned int id) {
  return "CTHREADMONITOR::SetEntryStatusExited(): WARNING: Don't touch an old entry (Handle = " +
         Ptr(entry) + ", EntryStatus = " + Lower8(entryStatus) +
         ", ThreadStatus = " + Lower8(threadStatus) + ", ThreadId = " + Upper8(id) + ")\n";
}

std::string Changed(const _CTHREADMONITOR_ENTRY* entry, unsigned int entryStatus,
                    unsigned int threadStatus, unsigned int id, int counter) {
  return "CTHREADMONITOR::SetEntryStatusExited(): Status for entry, Handle = " + Ptr(entry) +
         " changed (EntryStatus = " + Lower8(entryStatus) +
         ", ThreadStatus = " + Lower8(threadStatus) + ", ThreadId = " + Upper8(id) +
         ", ThreadCounter = " + std::to_string(counter) + ")\n";
}

std::string NoEntry(unsigned int id) {
  return "CTHREADMONITOR::SetEntryStatusExited(): WARNING: no corresponding entry for ThreadId = " +
         Upper8(id) + " found\n";
}

std::string ThreadReturn(unsigned int id, unsigned int result) {
  return "THREAD_RETURN: ## INFO: Thread = " + Upper8(id) + " exited, Return = " + Lower8(result) +
         "##\n";
}

std::string RunningDestroyed(const _CTHREADMONITOR_ENTRY* entry, unsigned int id) {
  return "CTHREADMONITOR::SetEntryStatus(): WARNING: Instance (" + Ptr(entry) +
         ") of a running thread = " + Upper8(id) + " destroyed !!!\n";
}

const std::string kTableFull =
    "CTHREADMONITOR::RegisterEntry(): WARNING: cannot create an entry in CTHREADMONITOR (max value "
    "exceeded)\n";
const std::string kNullHandle =
    "CThread::KillStillAliveThread=TRUE: RegisterEntry returned ThreadMonHandle = NULL\n";

unsigned int CurrentEntryStatus(const _CTHREADMONITOR_ENTRY* entry) {
  return entry->m_EntryStatus[entry->m_StatusCounter];
}
unsigned int CurrentThreadStatus(const _CTHREADMONITOR_ENTRY* entry) {
  return entry->m_ThreadStatus[entry->m_StatusCounter];
}

// A mutex that is free can be taken (and is given back at once).
bool IsFree(pthread_mutex_t* mutex) {
  if (pthread_mutex_trylock(mutex) != 0) return false;
  pthread_mutex_unlock(mutex);
  return true;
}

class ThreadMonitorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::InstallThreadMonitor();
    ASSERT_NE(pThreadMonitor, nullptr);
    halvane::TraceToMemory();
    halvane::SetTraceSwitch(true);
    halvane::SetTraceLevel(1);
    halvane::TakeTrace();
  }

  void TearDown() override {
    halvane::RemoveThreadMonitor();
    halvane::SetTraceLevel(5);
    halvane::TakeTrace();
  }

  static _CTHREADMONITOR_ENTRY* Entry(int index) { return &pThreadMonitor->m_Entries[index]; }
};

TEST_F(ThreadMonitorTest, ConstructionRegistersAnEntryAndMarksTheObject) {
  auto thread = std::make_unique<CThread>();
  _CTHREADMONITOR_ENTRY* const entry = Entry(0);

  EXPECT_EQ(thread->m_ThreadId, pthread_t{});
  EXPECT_EQ(thread->KillStillAliveThread, 1u);
  EXPECT_EQ(thread->m_Reserved0, 0u);
  EXPECT_EQ(thread->m_Reserved1, -1);
  EXPECT_EQ(thread->ThreadMonHandle, entry);
  EXPECT_EQ(pThreadMonitor->m_EntryCount, 1);
  EXPECT_EQ(entry->m_pEntryMutex, &entry->m_EntryMutex);
  EXPECT_EQ(entry->m_StatusCounter, 1u);
  EXPECT_EQ(entry->m_EntryStatus[0], 0x1u);
  EXPECT_EQ(entry->m_ThreadStatus[0], 0x0u);
  EXPECT_EQ(entry->m_EntryStatus[1], 0x1u);
  EXPECT_EQ(entry->m_ThreadStatus[1], 0x1u);
  EXPECT_EQ(halvane::TakeTrace(), Registered(entry));
  EXPECT_TRUE(IsFree(entry->m_pEntryMutex));
  EXPECT_TRUE(IsFree(pThreadMonitor->m_pTableMutex));

  // Destruction of an object whose thread never ran: a new pair marking the
  // object destroyed and the entry old, and no warning.
  thread.reset();
  EXPECT_EQ(entry->m_StatusCounter, 2u);
  EXPECT_EQ(entry->m_EntryStatus[2], 0x10000801u);
  EXPECT_EQ(entry->m_ThreadStatus[2], 0x10000000u);
  EXPECT_EQ(entry->m_EntryStatus[1], 0x1u) << "earlier pairs stay as they were";
  EXPECT_EQ(entry->m_ThreadStatus[1], 0x1u);
  EXPECT_EQ(halvane::TakeTrace(), "");
  EXPECT_EQ(pThreadMonitor->m_EntryCount, 1) << "entries are never given back";
}

TEST_F(ThreadMonitorTest, EachObjectTakesTheNextEntry) {
  CThread first;
  CThread second;
  EXPECT_EQ(first.ThreadMonHandle, Entry(0));
  EXPECT_EQ(second.ThreadMonHandle, Entry(1));
  EXPECT_EQ(pThreadMonitor->m_EntryCount, 2);
  EXPECT_EQ(halvane::TakeTrace(), Registered(Entry(0)) + Registered(Entry(1)));
}

TEST_F(ThreadMonitorTest, TracesAreLevelOne) {
  halvane::SetTraceLevel(0);
  { CThread thread; }
  EXPECT_EQ(halvane::TakeTrace(), "");
  halvane::SetTraceLevel(1);
  CThread thread;
  EXPECT_EQ(halvane::TakeTrace(), Registered(Entry(1)));
}

TEST_F(ThreadMonitorTest, TraceSwitchOffStillRegistersButWritesNothing) {
  halvane::SetTraceSwitch(false);
  const unsigned long callsBefore = halvane::PrintCallCount();
  {
    CThread thread;
    EXPECT_EQ(thread.ThreadMonHandle, Entry(0));
    CThreadMonitor::SetThreadName(thread, "host", "_TaskHndlr");
  }
  CThreadMonitor::SetEntryStatusExited(0);
  EXPECT_EQ(halvane::PrintCallCount(), callsBefore);
  halvane::SetTraceSwitch(true);
  EXPECT_EQ(halvane::TakeTrace(), "");
}

TEST_F(ThreadMonitorTest, ObjectThatIsNotKilledIsNotMonitored) {
  {
    CThread thread(0);
    EXPECT_EQ(thread.KillStillAliveThread, 0u);
    EXPECT_EQ(thread.ThreadMonHandle, nullptr);
    EXPECT_EQ(thread.m_Reserved1, -1);
  }
  EXPECT_EQ(pThreadMonitor->m_EntryCount, 0);
  EXPECT_EQ(halvane::TakeTrace(), "");
}

TEST_F(ThreadMonitorTest, NullMonitorSkipsAllBookkeepingWithoutError) {
  halvane::RemoveThreadMonitor();
  ASSERT_EQ(pThreadMonitor, nullptr);
  {
    CThread thread;
    EXPECT_EQ(thread.ThreadMonHandle, nullptr);
    EXPECT_EQ(halvane::TakeTrace(), "") << "no registration, no warning";

    CThreadMonitor::SetThreadName(thread, "em-host", "_TaskHndlr");
    EXPECT_EQ(halvane::TakeTrace(),
              "CThread::SetThreadName: ThreadId = 0x00000000, DebugName = em-host, Qualifier = "
              "(_TaskHndlr)\n");
  }
  EXPECT_EQ(halvane::TakeTrace(), "");
  EXPECT_EQ(CThreadMonitor::RegisterEntry(), nullptr);
  EXPECT_EQ(halvane::TakeTrace(), "");
  CThreadMonitor::SetEntryStatusExited(0);
  EXPECT_EQ(halvane::TakeTrace(), ThreadReturn(SelfId(), 0));
}

void* SignalAndReturn(void* argument) {
  static_cast<std::promise<void>*>(argument)->set_value();
  return nullptr;
}

TEST_F(ThreadMonitorTest, FullTableGivesANullHandleAndTheThreadStillRuns) {
  std::vector<std::unique_ptr<CThread>> threads;
  for (int i = 0; i < CTHREADMONITOR::kMaxEntries; ++i)
    threads.push_back(std::make_unique<CThread>());
  ASSERT_EQ(pThreadMonitor->m_EntryCount, 512);
  EXPECT_EQ(threads.back()->ThreadMonHandle, Entry(511));
  halvane::TakeTrace();

  CThread extra;
  EXPECT_EQ(extra.ThreadMonHandle, nullptr);
  EXPECT_EQ(pThreadMonitor->m_EntryCount, 512);
  EXPECT_EQ(halvane::TakeTrace(), kTableFull + kNullHandle);
  EXPECT_TRUE(IsFree(pThreadMonitor->m_pTableMutex));

  std::promise<void> ran;
  std::future<void> done = ran.get_future();
  ASSERT_EQ(extra.Start(SignalAndReturn, &ran, 83, 0, 0, 0, 1), 1);
  // Generous bound for a loaded machine; the thread normally runs at once.
  EXPECT_EQ(done.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(extra.WaitForTermination(30000), 1);
  EXPECT_EQ(ThreadCounter, 0) << "an unmonitored thread is not counted";

  // The registration call itself gives null for a full table as well.
  EXPECT_EQ(CThreadMonitor::RegisterEntry(), nullptr);
  EXPECT_EQ(halvane::TakeTrace(), kTableFull);
}

TEST_F(ThreadMonitorTest, ThirtySecondStatusChangeOverflowsAndRewritesTheLastSlotFromTheOneBefore) {
  _CTHREADMONITOR_ENTRY* const entry = CThreadMonitor::RegisterEntry();
  ASSERT_EQ(entry, Entry(0));
  EXPECT_EQ(halvane::TakeTrace(), Registered(entry));
  ASSERT_EQ(entry->m_StatusCounter, 0u);

  // Change k sets thread bit k-1, so slot k holds the k lowest bits.
  for (unsigned int k = 1; k <= 31; ++k) {
    CThreadMonitor::SetEntryStatus(entry, 0, 0, 1u << (k - 1), 0);
    ASSERT_EQ(entry->m_StatusCounter, k);
    ASSERT_EQ(entry->m_ThreadStatus[k], (1u << k) - 1u) << "change " << k;
    ASSERT_EQ(entry->m_EntryStatus[k], 0x1u);
  }
  EXPECT_EQ(halvane::TakeTrace(), "") << "31 changes fit";

  CThreadMonitor::SetEntryStatus(entry, 0, 0, 0x80000000u, 0);  // the 32nd
  EXPECT_EQ(halvane::TakeTrace(), SetStatusOverflow(entry));
  EXPECT_EQ(entry->m_StatusCounter, 31u);
  EXPECT_EQ(entry->m_ThreadStatus[30], 0x3FFFFFFFu);
  EXPECT_EQ(entry->m_ThreadStatus[31], 0xBFFFFFFFu) << "slot 30 plus the new bit, not slot 31";

  CThreadMonitor::SetEntryStatus(entry, 0x4, 0x1, 0, 0x1);  // the 33rd
  EXPECT_EQ(halvane::TakeTrace(), SetStatusOverflow(entry));
  EXPECT_EQ(entry->m_StatusCounter, 31u);
  EXPECT_EQ(entry->m_EntryStatus[31], 0x4u);
  EXPECT_EQ(entry->m_ThreadStatus[31], 0x3FFFFFFEu);
  EXPECT_TRUE(IsFree(entry->m_pEntryMutex));
}

TEST_F(ThreadMonitorTest, StatusChangeSetsBeforeItClears) {
  _CTHREADMONITOR_ENTRY* const entry = CThreadMonitor::RegisterEntry();
  CThreadMonitor::SetEntryStatus(entry, 0x30, 0x1, 0x11, 0x0);
  EXPECT_EQ(entry->m_EntryStatus[1], 0x30u);
  EXPECT_EQ(entry->m_ThreadStatus[1], 0x11u);
  CThreadMonitor::SetEntryStatus(entry, 0x0, 0x10, 0x100, 0x10);
  EXPECT_EQ(entry->m_EntryStatus[2], 0x20u);
  EXPECT_EQ(entry->m_ThreadStatus[2], 0x101u);
}

TEST_F(ThreadMonitorTest, DestructionWithAFullHistoryTracesTheOverflow) {
  auto thread = std::make_unique<CThread>();
  _CTHREADMONITOR_ENTRY* const entry = thread->ThreadMonHandle;
  for (int k = 2; k <= 31; ++k) CThreadMonitor::SetEntryStatus(entry, 0, 0, 0x4000, 0);
  ASSERT_EQ(entry->m_StatusCounter, 31u);
  CThreadMonitor::SetEntryStatus(entry, 0, 0, 0x8000, 0);  // slot 31 now has 0x8000 as well
  halvane::TakeTrace();

  thread.reset();
  EXPECT_EQ(halvane::TakeTrace(), SetStatusOverflow(entry));
  EXPECT_EQ(entry->m_StatusCounter, 31u);
  EXPECT_EQ(entry->m_ThreadStatus[31], 0x10004000u) << "from slot 30: 0x4001, +destroyed, -object";
  EXPECT_EQ(entry->m_EntryStatus[31], 0x10000801u);
}

// The exiting thread's choice among entries with its own thread id.
struct CExitCase {
  const char* m_Name;
  unsigned int m_OldBlockerStatus;  // thread status of the first, old entry with our id
};

// Printed by name: the default byte dump would put a pointer value into the
// test's name, which then changes from build to build.
void PrintTo(const CExitCase& exitCase, std::ostream* out) { *out << exitCase.m_Name; }

class ExitedChoice : public ThreadMonitorTest, public ::testing::WithParamInterface<CExitCase> {};

TEST_P(ExitedChoice, OldEntryOfAFinishedThreadIsSkippedForTheNewerOne) {
  const unsigned int self = SelfId();
  _CTHREADMONITOR_ENTRY* const other = CThreadMonitor::RegisterEntry();
  _CTHREADMONITOR_ENTRY* const old = CThreadMonitor::RegisterEntry();
  _CTHREADMONITOR_ENTRY* const newer = CThreadMonitor::RegisterEntry();
  _CTHREADMONITOR_ENTRY* const later = CThreadMonitor::RegisterEntry();
  other->m_ThreadId = static_cast<std::uint64_t>(pthread_self()) + 1;
  old->m_ThreadId = static_cast<std::uint64_t>(pthread_self());
  newer->m_ThreadId = static_cast<std::uint64_t>(pthread_self());
  later->m_ThreadId = static_cast<std::uint64_t>(pthread_self());
  CThreadMonitor::SetEntryStatus(old, THREADMON_ENTRY_OLD, 0, GetParam().m_OldBlockerStatus, 0);
  CThreadMonitor::SetEntryStatus(newer, 0, 0, THREADMON_THREAD_OBJECT | THREADMON_THREAD_RUNNING,
                                 0);
  ThreadCounter = 3;
  halvane::TakeTrace();

  CThreadMonitor::SetEntryStatusExited(0);

  const unsigned int oldEntryStatus = 0x10000001u;
  const unsigned int oldThreadStatus = GetParam().m_OldBlockerStatus;
  EXPECT_EQ(halvane::TakeTrace(), OldEntryFound(old, oldEntryStatus, oldThreadStatus, self) +
                                      DontTouch(old, oldEntryStatus, oldThreadStatus, self) +
                                      Changed(newer, 0x10000011u, 0x101u, self, 2) +
                                      ThreadReturn(self, 0));
  EXPECT_EQ(newer->m_StatusCounter, 2u);
  EXPECT_EQ(newer->m_EntryStatus[2], 0x10000011u);
  EXPECT_EQ(newer->m_ThreadStatus[2], 0x101u);
  EXPECT_EQ(old->m_StatusCounter, 1u) << "the old entry is not touched";
  EXPECT_EQ(later->m_StatusCounter, 0u);
  EXPECT_EQ(other->m_StatusCounter, 0u);
  EXPECT_EQ(ThreadCounter, 2);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(IsFree(Entry(i)->m_pEntryMutex)) << i;
  EXPECT_TRUE(IsFree(pThreadMonitor->m_pTableMutex));
}

INSTANTIATE_TEST_SUITE_P(HostStates, ExitedChoice,
                         ::testing::Values(CExitCase{"Exited", THREADMON_THREAD_EXITED},
                                           CExitCase{"HostBusyA", THREADMON_THREAD_HOST_BUSY_A},
                                           CExitCase{"HostBusyB", THREADMON_THREAD_HOST_BUSY_B},
                                           CExitCase{"ExitedAndRunning", 0x110u}),
                         [](const ::testing::TestParamInfo<CExitCase>& info) {
                           return std::string(info.param.m_Name);
                         });

TEST_F(ThreadMonitorTest, OldEntryFreeOfHostStatesIsTakenAllTheSame) {
  const unsigned int self = SelfId();
  _CTHREADMONITOR_ENTRY* const done = CThreadMonitor::RegisterEntry();
  _CTHREADMONITOR_ENTRY* const old = CThreadMonitor::RegisterEntry();
  _CTHREADMONITOR_ENTRY* const newer = CThreadMonitor::RegisterEntry();
  for (_CTHREADMONITOR_ENTRY* entry : {done, old, newer}) {
    entry->m_ThreadId = static_cast<std::uint64_t>(pthread_self());
  }
  CThreadMonitor::SetEntryStatus(done, THREADMON_ENTRY_OLD, 0, 0x20100u, 0);
  CThreadMonitor::SetEntryStatus(old, THREADMON_ENTRY_OLD | 0x800, 0, 0x10000010u, 0);
  ThreadCounter = 7;
  halvane::TakeTrace();

  CThreadMonitor::SetEntryStatusExited(0x2A);

  EXPECT_EQ(halvane::TakeTrace(), OldEntryFound(done, 0x10000001u, 0x20100u, self) +
                                      DontTouch(done, 0x10000001u, 0x20100u, self) +
                                      OldEntryFound(old, 0x10000801u, 0x10000010u, self) +
                                      Changed(old, 0x10000811u, 0x10000100u, self, 6) +
                                      ThreadReturn(self, 0x2A));
  EXPECT_EQ(old->m_StatusCounter, 2u);
  EXPECT_EQ(newer->m_StatusCounter, 0u) << "the first acceptable entry wins";
  EXPECT_EQ(ThreadCounter, 6);
}

TEST_F(ThreadMonitorTest, NoEntryForTheThreadLeavesTheCounterAlone) {
  const unsigned int self = SelfId();
  _CTHREADMONITOR_ENTRY* const stranger = CThreadMonitor::RegisterEntry();
  _CTHREADMONITOR_ENTRY* const finished = CThreadMonitor::RegisterEntry();
  stranger->m_ThreadId = static_cast<std::uint64_t>(pthread_self()) ^ 0x1000;
  finished->m_ThreadId = static_cast<std::uint64_t>(pthread_self());
  CThreadMonitor::SetEntryStatus(finished, THREADMON_ENTRY_OLD, 0, THREADMON_THREAD_EXITED, 0);
  ThreadCounter = 4;
  halvane::TakeTrace();

  CThreadMonitor::SetEntryStatusExited(0);

  EXPECT_EQ(halvane::TakeTrace(), OldEntryFound(finished, 0x10000001u, 0x100u, self) +
                                      DontTouch(finished, 0x10000001u, 0x100u, self) +
                                      NoEntry(self) + ThreadReturn(self, 0));
  EXPECT_EQ(ThreadCounter, 4);
  EXPECT_EQ(stranger->m_StatusCounter, 0u);
  EXPECT_EQ(finished->m_StatusCounter, 1u);
  EXPECT_TRUE(IsFree(pThreadMonitor->m_pTableMutex));
  EXPECT_TRUE(IsFree(finished->m_pEntryMutex));
}

TEST_F(ThreadMonitorTest, ExitWithAFullHistoryTracesItsOwnOverflow) {
  const unsigned int self = SelfId();
  _CTHREADMONITOR_ENTRY* const entry = CThreadMonitor::RegisterEntry();
  entry->m_ThreadId = static_cast<std::uint64_t>(pthread_self());
  for (int k = 1; k <= 31; ++k) CThreadMonitor::SetEntryStatus(entry, 0, 0, 0x10, 0);
  ThreadCounter = 1;
  halvane::TakeTrace();

  CThreadMonitor::SetEntryStatusExited(0);

  EXPECT_EQ(
      halvane::TakeTrace(),
      ExitedOverflow(entry) + Changed(entry, 0x10000011u, 0x100u, self, 0) + ThreadReturn(self, 0));
  EXPECT_EQ(entry->m_StatusCounter, 31u);
  EXPECT_EQ(entry->m_ThreadStatus[31], 0x100u);
  EXPECT_EQ(entry->m_EntryStatus[31], 0x10000011u);
}

TEST_F(ThreadMonitorTest, DestroyingAnObjectWhoseThreadIsMarkedRunningWarns) {
  auto thread = std::make_unique<CThread>();
  _CTHREADMONITOR_ENTRY* const entry = thread->ThreadMonHandle;
  // What the host records when the thread starts: its id and the running bit.
  entry->m_ThreadId = 0x12345678u;
  CThreadMonitor::SetEntryStatus(entry, 0, 0, THREADMON_THREAD_RUNNING, 0);
  halvane::TakeTrace();

  thread.reset();

  EXPECT_EQ(halvane::TakeTrace(), RunningDestroyed(entry, 0x12345678u));
  EXPECT_EQ(entry->m_StatusCounter, 3u);
  EXPECT_EQ(entry->m_ThreadStatus[3], 0x10000010u);
  EXPECT_EQ(entry->m_EntryStatus[3], 0x10000801u);
  EXPECT_TRUE(IsFree(entry->m_pEntryMutex));
}

TEST_F(ThreadMonitorTest, NamingStoresHeapCopiesAndReplacesEarlierNames) {
  CThread thread;
  _CTHREADMONITOR_ENTRY* const entry = thread.ThreadMonHandle;
  thread.m_ThreadId = static_cast<pthread_t>(0xABCDEF01u);
  halvane::TakeTrace();

  char debugName[] = "em-host";
  char qualifier[] = "_TaskHndlr";
  CThreadMonitor::SetThreadName(thread, debugName, qualifier);
  EXPECT_EQ(halvane::TakeTrace(),
            "CThread::SetThreadName: ThreadId = 0xABCDEF01, DebugName = em-host, Qualifier = "
            "(_TaskHndlr)\n");
  ASSERT_NE(entry->m_pszDebugName, nullptr);
  ASSERT_NE(entry->m_pszQualifier, nullptr);
  EXPECT_NE(entry->m_pszDebugName, debugName);
  EXPECT_NE(entry->m_pszQualifier, qualifier);
  std::strcpy(debugName, "changed");
  EXPECT_STREQ(entry->m_pszDebugName, "em-host") << "the entry owns its copy";
  EXPECT_STREQ(entry->m_pszQualifier, "_TaskHndlr");
  EXPECT_EQ(entry->m_StatusCounter, 1u) << "naming adds no status pair";

  CThreadMonitor::SetThreadName(thread, "second", "_Other");
  EXPECT_STREQ(entry->m_pszDebugName, "second");
  EXPECT_STREQ(entry->m_pszQualifier, "_Other");
  EXPECT_EQ(halvane::TakeTrace(),
            "CThread::SetThreadName: ThreadId = 0xABCDEF01, DebugName = second, Qualifier = "
            "(_Other)\n");
  EXPECT_TRUE(IsFree(entry->m_pEntryMutex));
  thread.m_ThreadId = pthread_t{};
}

TEST_F(ThreadMonitorTest, NamingAnUnmonitoredObjectOnlyTraces) {
  CThread thread(0);
  CThreadMonitor::SetThreadName(thread, "em-host", "_TaskHndlr");
  EXPECT_EQ(halvane::TakeTrace(),
            "CThread::SetThreadName: ThreadId = 0x00000000, DebugName = em-host, Qualifier = "
            "(_TaskHndlr)\n");
  EXPECT_EQ(Entry(0)->m_pszDebugName, nullptr);
}

// An entry that is not inside the installed table (a host may keep entries
// wherever it likes): naming and destruction write it all the same, since
// the monitor runs and the handle is set; with no monitor nothing is written.
class EntryOutsideTheTable : public ThreadMonitorTest {
 protected:
  void SetUp() override {
    ThreadMonitorTest::SetUp();
    std::memset(static_cast<void*>(&m_Entry), 0, sizeof(m_Entry));
    ASSERT_EQ(pthread_mutex_init(&m_Entry.m_EntryMutex, nullptr), 0);
    m_Entry.m_pEntryMutex = &m_Entry.m_EntryMutex;
    m_Entry.m_StatusCounter = 1;
    m_Entry.m_EntryStatus[0] = m_Entry.m_EntryStatus[1] = 0x1u;
    m_Entry.m_ThreadStatus[1] = 0x1u;
    const char* const tableStart = reinterpret_cast<const char*>(&pThreadMonitor->m_Entries[0]);
    const char* const tableEnd = tableStart + sizeof(pThreadMonitor->m_Entries);
    const char* const entry = reinterpret_cast<const char*>(&m_Entry);
    ASSERT_TRUE(entry + sizeof(m_Entry) <= tableStart || entry >= tableEnd);
  }
  void TearDown() override {
    std::free(m_Entry.m_pszDebugName);
    std::free(m_Entry.m_pszQualifier);
    pthread_mutex_destroy(&m_Entry.m_EntryMutex);
    ThreadMonitorTest::TearDown();
  }

  // An object that did not register itself (no kill, no entry of the table)
  // and is then given the outside entry as its handle.
  std::unique_ptr<CThread> ObjectWithTheOutsideEntry() {
    auto thread = std::make_unique<CThread>(0);
    thread->ThreadMonHandle = &m_Entry;
    return thread;
  }

  _CTHREADMONITOR_ENTRY m_Entry;
};

TEST_F(EntryOutsideTheTable, NamingAndDestructionWriteTheEntry) {
  auto thread = ObjectWithTheOutsideEntry();
  CThreadMonitor::SetThreadName(*thread, "em-host", "_TaskHndlr");
  ASSERT_NE(m_Entry.m_pszDebugName, nullptr);
  EXPECT_STREQ(m_Entry.m_pszDebugName, "em-host");
  EXPECT_STREQ(m_Entry.m_pszQualifier, "_TaskHndlr");

  thread.reset();
  EXPECT_EQ(m_Entry.m_StatusCounter, 2u);
  EXPECT_EQ(m_Entry.m_EntryStatus[2], 0x10000801u);
  EXPECT_EQ(m_Entry.m_ThreadStatus[2], 0x10000000u);
  EXPECT_TRUE(IsFree(&m_Entry.m_EntryMutex));
  EXPECT_EQ(halvane::TakeTrace(),
            "CThread::SetThreadName: ThreadId = 0x00000000, DebugName = em-host, Qualifier = "
            "(_TaskHndlr)\n");
  EXPECT_EQ(pThreadMonitor->m_EntryCount, 0) << "the table itself is not touched";
}

TEST_F(EntryOutsideTheTable, WithoutAMonitorNothingIsWritten) {
  auto thread = ObjectWithTheOutsideEntry();
  CTHREADMONITOR* const monitor = pThreadMonitor;
  pThreadMonitor = nullptr;
  CThreadMonitor::SetThreadName(*thread, "em-host", "_TaskHndlr");
  thread.reset();
  pThreadMonitor = monitor;
  EXPECT_EQ(m_Entry.m_pszDebugName, nullptr);
  EXPECT_EQ(m_Entry.m_pszQualifier, nullptr);
  EXPECT_EQ(m_Entry.m_StatusCounter, 1u);
  EXPECT_EQ(m_Entry.m_EntryStatus[2], 0u);
}

// ----- with real host threads ------------------------------------------------

struct CExitingThread {
  std::promise<void> m_Started;
  std::promise<void> m_Proceed;  // keeps the exit after the naming in the trace
};

void* ExitThroughTheMonitor(void* argument) {
  auto* context = static_cast<CExitingThread*>(argument);
  context->m_Started.set_value();
  context->m_Proceed.get_future().wait();
  CThreadMonitor::SetEntryStatusExited(0);
  return nullptr;
}

TEST_F(ThreadMonitorTest, ThreadLifeFromConstructionToDestruction) {
  halvane::SetDebugName("UnitHost");
  auto thread = std::make_unique<CThread>();
  _CTHREADMONITOR_ENTRY* const entry = thread->ThreadMonHandle;
  ASSERT_NE(entry, nullptr);
  halvane::TakeTrace();

  CExitingThread context;
  std::future<void> started = context.m_Started.get_future();
  ASSERT_EQ(thread->Start(ExitThroughTheMonitor, &context, 83, 0, 0, 0, 1), 1);
  const unsigned int id = static_cast<unsigned int>(thread->m_ThreadId);
  // Generous bounds for a loaded machine; the thread normally ends at once.
  ASSERT_EQ(started.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(CurrentThreadStatus(entry), 0x11u) << "the host marked it running";
  EXPECT_EQ(ThreadCounter, 1);
  CThreadMonitor::SetThreadName(*thread, Debug.m_DebugName, "_TaskHndlr");
  context.m_Proceed.set_value();
  ASSERT_EQ(thread->WaitForTermination(30000), 1);

  EXPECT_EQ(halvane::TakeTrace(), "CThread::SetThreadName: ThreadId = " + Upper8(id) +
                                      ", DebugName = UnitHost, Qualifier = (_TaskHndlr)\n" +
                                      Changed(entry, 0x10000011u, 0x101u, id, 0) +
                                      ThreadReturn(id, 0));
  EXPECT_STREQ(entry->m_pszDebugName, "UnitHost");
  EXPECT_EQ(CurrentEntryStatus(entry), 0x10000011u);
  EXPECT_EQ(CurrentThreadStatus(entry), 0x101u);
  EXPECT_EQ(ThreadCounter, 0);

  thread.reset();
  EXPECT_EQ(halvane::TakeTrace(), "");
  EXPECT_EQ(CurrentEntryStatus(entry), 0x10000811u);
  EXPECT_EQ(CurrentThreadStatus(entry), 0x10000100u);
  halvane::SetDebugName("em-host");
}

void* SleepUntilKilled(void* argument) {
  static_cast<std::promise<void>*>(argument)->set_value();
  for (;;) usleep(1000);
  return nullptr;
}

TEST_F(ThreadMonitorTest, DestroyingTheObjectOfALiveThreadKillsItAndWarns) {
  auto thread = std::make_unique<CThread>();
  _CTHREADMONITOR_ENTRY* const entry = thread->ThreadMonHandle;
  std::promise<void> started;
  std::future<void> running = started.get_future();
  ASSERT_EQ(thread->Start(SleepUntilKilled, &started, 83, 0, 0, 0, 1), 1);
  ASSERT_EQ(running.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  const unsigned int id = static_cast<unsigned int>(entry->m_ThreadId);
  EXPECT_EQ(CurrentThreadStatus(entry), 0x11u);
  halvane::TakeTrace();

  thread.reset();  // kills the thread, which never reaches its exit bookkeeping

  EXPECT_EQ(halvane::TakeTrace(), RunningDestroyed(entry, id));
  EXPECT_EQ(CurrentThreadStatus(entry), 0x10000010u);
  EXPECT_EQ(CurrentEntryStatus(entry), 0x10000801u);
}

}  // namespace
