// The stand-alone host's CThread::Start, WaitForTermination and Kill, and
// the host's share of the thread-monitor bookkeeping (thread id, running
// bit 0x10 and ThreadCounter written by Start before the body runs).
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "tasks/ThreadMonitor.h"
#include "tests/host/HostTestSupport.h"

#include <gtest/gtest.h>

#include <cxxabi.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

namespace {

using hosttest::CTempDir;
using hosttest::LoadPid;
using hosttest::WaitUntil;

bool Alive(const CThread& thread) {
  if (thread.m_ThreadId == pthread_t{}) return false;
  int policy = 0;
  sched_param parameters{};
  return pthread_getschedparam(thread.m_ThreadId, &policy, &parameters) == 0;
}

class ThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::TraceToMemory();
    halvane::SetTraceLevel(5);
    halvane::SetTraceSwitch(false);
    halvane::RemoveThreadMonitor();
  }
  void TearDown() override {
    halvane::SetTraceSwitch(false);
    halvane::RemoveThreadMonitor();
  }
};

// ----- Start and WaitForTermination ----------------------------------------

struct CStartProbe {
  CThread* m_pThread = nullptr;
  pthread_t m_SeenInObject{};
  pthread_t m_Self{};
  void* m_Result = reinterpret_cast<void*>(0x5A);
  std::atomic<bool> m_Ran{false};
};

void* RecordStart(void* parameter) {
  auto* probe = static_cast<CStartProbe*>(parameter);
  probe->m_SeenInObject = probe->m_pThread->m_ThreadId;
  probe->m_Self = pthread_self();
  probe->m_Ran = true;
  return probe->m_Result;
}

TEST_F(ThreadTest, StartRunsTheFunctionWithItsArgumentAndIdFirst) {
  CThread thread(1);
  CStartProbe probe;
  probe.m_pThread = &thread;
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
  ASSERT_EQ(1, thread.Start(RecordStart, &probe, 83, 0, 0, 0, 1));
  const pthread_t started = thread.m_ThreadId;
  EXPECT_NE(pthread_t{}, started);
  ASSERT_EQ(1, thread.WaitForTermination(10000));
  EXPECT_TRUE(probe.m_Ran.load());
  // The id was in the object before the body ran, and it is the thread's own.
  EXPECT_TRUE(pthread_equal(probe.m_Self, started));
  EXPECT_TRUE(pthread_equal(probe.m_SeenInObject, started));
  // Joined: the id is cleared so the alive test cannot probe freed memory.
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
  EXPECT_FALSE(Alive(thread));
}

TEST_F(ThreadTest, WithoutAThreadWaitReportsEndedAndKillNothing) {
  CThread thread(1);
  EXPECT_EQ(1, thread.WaitForTermination(0));
  EXPECT_EQ(0, thread.Kill(0));
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
}

TEST_F(ThreadTest, NullFunctionIsRefused) {
  CThread thread(1);
  EXPECT_EQ(0, thread.Start(nullptr, nullptr, 83, 0, 0, 0, 1));
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
}

void* WaitOnEvent(void* parameter) {
  static_cast<CEvent*>(parameter)->Wait(CEvent::kInfinite, 1);
  return nullptr;
}

TEST_F(ThreadTest, WaitForTerminationTimesOutWhileTheThreadRuns) {
  CEvent release(0, 1, nullptr, nullptr);
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(WaitOnEvent, &release, 83, 0, 0, 0, 1));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, thread.WaitForTermination(150));
  EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  start)
                .count(),
            140);
  EXPECT_TRUE(Alive(thread));
  release.Set();
  EXPECT_EQ(1, thread.WaitForTermination(10000));
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
}

TEST_F(ThreadTest, StartIsRefusedWhileTheThreadRuns) {
  CEvent release(0, 1, nullptr, nullptr);
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(WaitOnEvent, &release, 83, 0, 0, 0, 1));
  const pthread_t first = thread.m_ThreadId;
  EXPECT_EQ(0, thread.Start(WaitOnEvent, &release, 83, 0, 0, 0, 1));
  EXPECT_TRUE(pthread_equal(first, thread.m_ThreadId));
  release.Set();
  EXPECT_EQ(1, thread.WaitForTermination(10000));
}

void* ReturnAtOnce(void* parameter) {
  static_cast<std::atomic<int>*>(parameter)->fetch_add(1);
  return nullptr;
}

TEST_F(ThreadTest, AnEndedThreadCanBeStartedAgainWithoutAWait) {
  std::atomic<int> runs{0};
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(ReturnAtOnce, &runs, 83, 0, 0, 0, 1));
  ASSERT_TRUE(WaitUntil([&] { return runs.load() == 1; }));
  ASSERT_TRUE(WaitUntil([&] { return !Alive(thread); }));
  ASSERT_EQ(1, thread.Start(ReturnAtOnce, &runs, 83, 0, 0, 0, 1));
  EXPECT_EQ(1, thread.WaitForTermination(10000));
  EXPECT_EQ(2, runs.load());
}

TEST_F(ThreadTest, KillOfAThreadThatEndedByItselfEndsNothing) {
  std::atomic<int> runs{0};
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(ReturnAtOnce, &runs, 83, 0, 0, 0, 1));
  ASSERT_TRUE(WaitUntil([&] { return runs.load() == 1 && !Alive(thread); }));
  EXPECT_EQ(0, thread.Kill(0));
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
}

TEST_F(ThreadTest, AffinityMaskIsApplied) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  ASSERT_EQ(0, sched_getaffinity(0, sizeof(allowed), &allowed));
  int firstCpu = -1;
  for (int cpu = 0; cpu < 64 && firstCpu < 0; ++cpu) {
    if (CPU_ISSET(cpu, &allowed)) firstCpu = cpu;
  }
  if (firstCpu < 0) GTEST_SKIP() << "no CPU below 64 available";
  struct CProbe {
    std::atomic<int> m_Count{-1};
    std::atomic<int> m_Cpu{-1};
  } probe;
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(
                   [](void* parameter) -> void* {
                     auto* p = static_cast<CProbe*>(parameter);
                     cpu_set_t mine;
                     CPU_ZERO(&mine);
                     sched_getaffinity(0, sizeof(mine), &mine);
                     p->m_Cpu = sched_getcpu();
                     p->m_Count = CPU_COUNT(&mine);
                     return nullptr;
                   },
                   &probe, 83, 0, 0, 1ul << firstCpu, 1));
  ASSERT_EQ(1, thread.WaitForTermination(10000));
  EXPECT_EQ(1, probe.m_Count.load());
  EXPECT_EQ(firstCpu, probe.m_Cpu.load());
}

// ----- Kill ------------------------------------------------------------------

struct CKillProbe {
  CEvent* m_pEvent = nullptr;
  std::atomic<bool> m_Waiting{false};
  std::atomic<bool> m_Unwound{false};
  std::atomic<bool> m_Returned{false};
};

struct CUnwindWitness {
  std::atomic<bool>& m_Flag;
  ~CUnwindWitness() { m_Flag = true; }
};

void* WaitUntilKilled(void* parameter) {
  auto* probe = static_cast<CKillProbe*>(parameter);
  CUnwindWitness witness{probe->m_Unwound};
  probe->m_Waiting = true;
  probe->m_pEvent->Wait(CEvent::kInfinite, 1);
  probe->m_Returned = true;
  return nullptr;
}

TEST_F(ThreadTest, KillEndsAThreadWaitingOnAnEventAndUnwindsIt) {
  CEvent never(0, 1, nullptr, nullptr);
  CKillProbe probe;
  probe.m_pEvent = &never;
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(WaitUntilKilled, &probe, 83, 0, 0, 0, 1));
  ASSERT_TRUE(WaitUntil([&] { return probe.m_Waiting.load(); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // inside the wait
  EXPECT_EQ(1, thread.Kill(0));
  EXPECT_TRUE(probe.m_Unwound.load());   // destructors ran before Kill returned
  EXPECT_FALSE(probe.m_Returned.load());
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
  EXPECT_EQ(1, thread.WaitForTermination(0));
  EXPECT_EQ(1, never.Set());             // the event's mutex was released by the unwinding
}

// Outlive the test: the thread that Kill gives up on still reads them.
std::atomic<bool> g_ReleaseCancelProof{false};
std::atomic<bool> g_CancelProofDone{false};

void* CancelProof(void*) {
  // Cancellation disabled and no cancellation point until released: Kill
  // cannot end this thread and must give up after its bound.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  while (!g_ReleaseCancelProof.load()) std::this_thread::yield();
  g_CancelProofDone = true;
  return nullptr;
}

TEST_F(ThreadTest, KillGivesUpOnAThreadThatCannotBeCancelled) {
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(CancelProof, nullptr, 83, 0, 0, 0, 1));
  // Kill waits up to its 5 s bound, then returns without having ended it.
  EXPECT_EQ(0, thread.Kill(0));
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);  // forgotten: it was detached
  EXPECT_FALSE(g_CancelProofDone.load());
  EXPECT_EQ(1, thread.WaitForTermination(0));  // nothing of this object's runs any more
  g_ReleaseCancelProof = true;
  EXPECT_TRUE(WaitUntil([] { return g_CancelProofDone.load(); }));
}

struct CExecuteProbe {
  std::string m_Command;
  unsigned int m_ProcessId = 0;
  unsigned int m_ExitCode = 0xDEAD;
  std::atomic<bool> m_CaughtOther{false};
  std::atomic<bool> m_Returned{false};
};

// The module's shape: catch-all handlers that let the forced unwinding of a
// cancellation through. The forced-unwind "exception" has no object, so the
// handler's reference is bound to null by design of the C++ runtime;
// UndefinedBehaviorSanitizer's null check must be kept off this function.
__attribute__((no_sanitize("null"))) void* ExecuteUntilKilled(void* parameter) {
  auto* probe = static_cast<CExecuteProbe*>(parameter);
  try {
    CProcess::ExecuteCmd(probe->m_Command.c_str(), probe->m_ProcessId, probe->m_ExitCode, nullptr,
                         false);
    probe->m_Returned = true;
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    probe->m_CaughtOther = true;
  }
  return nullptr;
}

TEST_F(ThreadTest, KillEndsAThreadBlockedInExecuteCmdAndTheChildCanBeTerminated) {
  CTempDir dir;
  ASSERT_TRUE(dir.Valid());
  CExecuteProbe probe;
  probe.m_Command = dir / "sleeper";
  hosttest::WriteScript(probe.m_Command, "exec sleep 60");
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(ExecuteUntilKilled, &probe, 83, 0, 0, 0, 1));
  ASSERT_TRUE(WaitUntil([&] { return LoadPid(probe.m_ProcessId) != 0; }));
  const unsigned int pid = LoadPid(probe.m_ProcessId);
  ASSERT_TRUE(WaitUntil([&] { return hosttest::ProcessRuns(static_cast<int>(pid)); }));

  EXPECT_EQ(1, thread.Kill(0));
  EXPECT_EQ(pthread_t{}, thread.m_ThreadId);
  EXPECT_FALSE(probe.m_Returned.load());
  EXPECT_FALSE(probe.m_CaughtOther.load());
  // This process lives on (we are still here), and so does the child: it is
  // still ours to terminate and to wait for.
  EXPECT_TRUE(hosttest::ProcessRuns(static_cast<int>(pid)));
  EXPECT_EQ(0xDEADu, probe.m_ExitCode);
  EXPECT_TRUE(CProcess::TerminateProcess(pid, 1));
  unsigned int code = 0;
  EXPECT_TRUE(CProcess::WaitForExit(pid, code, 10000));
  EXPECT_EQ(1u, code);
  EXPECT_FALSE(CProcess::TerminateProcess(pid, 1));  // reaped: not ours any more
}

// A child whose waiter was killed is still watched: when it ends by itself
// it is reaped (no zombie is left behind), a later WaitForExit gets its own
// exit code, and TerminateProcess no longer takes its id for ours.
TEST_F(ThreadTest, ChildOfAKilledWaiterIsStillReapedWithItsOwnCode) {
  CTempDir dir;
  ASSERT_TRUE(dir.Valid());
  const std::string flag = dir / "go";
  CExecuteProbe probe;
  probe.m_Command = dir / "tool";
  hosttest::WriteScript(probe.m_Command,
                        "while [ ! -e '" + flag + "' ]; do sleep 0.01; done\nexit 7");
  CThread thread(1);
  ASSERT_EQ(1, thread.Start(ExecuteUntilKilled, &probe, 83, 0, 0, 0, 1));
  ASSERT_TRUE(WaitUntil([&] { return LoadPid(probe.m_ProcessId) != 0; }));
  const unsigned int pid = LoadPid(probe.m_ProcessId);
  ASSERT_EQ(1, thread.Kill(0));
  EXPECT_TRUE(hosttest::ProcessRuns(static_cast<int>(pid)));
  hosttest::WriteFile(flag, "");
  unsigned int code = 0;
  EXPECT_TRUE(CProcess::WaitForExit(pid, code, 10000));
  EXPECT_EQ(7u, code);
  EXPECT_NE('Z', hosttest::ProcessState(static_cast<int>(pid)));
  EXPECT_FALSE(CProcess::TerminateProcess(pid, 1));
  EXPECT_EQ(0xDEADu, probe.m_ExitCode);  // the killed waiter never wrote it
}

// ----- thread monitor ---------------------------------------------------------

struct CMonitorProbe {
  CThread* m_pThread = nullptr;
  unsigned int m_Counter = 99;
  unsigned int m_EntryStatus = 0;
  unsigned int m_ThreadStatus = 0;
  std::uint64_t m_EntryThreadId = 0;
  std::uint64_t m_Self = 0;
  int m_ThreadCounter = -99;
  bool m_ExitBookkeeping = false;
};

// Reads the thread's own entry first thing in the body, under the table and
// entry mutexes as the host's readers do.
void* ReadOwnEntry(void* parameter) {
  auto* probe = static_cast<CMonitorProbe*>(parameter);
  _CTHREADMONITOR_ENTRY* entry = probe->m_pThread->ThreadMonHandle;
  pthread_mutex_lock(pThreadMonitor->m_pTableMutex);
  pthread_mutex_lock(entry->m_pEntryMutex);
  probe->m_Counter = entry->m_StatusCounter;
  probe->m_EntryStatus = entry->m_EntryStatus[entry->m_StatusCounter];
  probe->m_ThreadStatus = entry->m_ThreadStatus[entry->m_StatusCounter];
  probe->m_EntryThreadId = entry->m_ThreadId;
  probe->m_ThreadCounter = ThreadCounter;
  pthread_mutex_unlock(entry->m_pEntryMutex);
  pthread_mutex_unlock(pThreadMonitor->m_pTableMutex);
  probe->m_Self = static_cast<std::uint64_t>(pthread_self());
  if (probe->m_ExitBookkeeping) CThreadMonitor::SetEntryStatusExited(0);
  return nullptr;
}

TEST_F(ThreadTest, InstalledMonitorIsAnEmptyTableWithAHostMutex) {
  EXPECT_EQ(nullptr, pThreadMonitor);
  halvane::InstallThreadMonitor();
  ASSERT_NE(nullptr, pThreadMonitor);
  EXPECT_EQ(0, pThreadMonitor->m_EntryCount);
  ASSERT_NE(nullptr, pThreadMonitor->m_pTableMutex);
  EXPECT_EQ(0, pthread_mutex_trylock(pThreadMonitor->m_pTableMutex));
  pthread_mutex_unlock(pThreadMonitor->m_pTableMutex);
  EXPECT_EQ(0, ThreadCounter);
  halvane::RemoveThreadMonitor();
  EXPECT_EQ(nullptr, pThreadMonitor);
}

TEST_F(ThreadTest, StartSetsTheRunningBitAndThreadIdAndCountsBeforeTheBody) {
  halvane::InstallThreadMonitor();
  CMonitorProbe probe;
  {
    CThread thread(1);
    ASSERT_NE(nullptr, thread.ThreadMonHandle);
    _CTHREADMONITOR_ENTRY* entry = thread.ThreadMonHandle;
    ASSERT_EQ(1u, entry->m_StatusCounter);  // registered, then the object bit
    EXPECT_EQ(0x1u, entry->m_ThreadStatus[1]);
    probe.m_pThread = &thread;
    ASSERT_EQ(1, thread.Start(ReadOwnEntry, &probe, 83, 0, 0, 0, 1));
    ASSERT_EQ(1, thread.WaitForTermination(10000));

    EXPECT_EQ(2u, probe.m_Counter);
    EXPECT_EQ(THREADMON_ENTRY_REGISTERED, probe.m_EntryStatus);
    EXPECT_EQ(THREADMON_THREAD_OBJECT | THREADMON_THREAD_RUNNING, probe.m_ThreadStatus);
    EXPECT_EQ(probe.m_Self, probe.m_EntryThreadId);
    EXPECT_EQ(1, probe.m_ThreadCounter);
    // Slots before the new pair are untouched.
    EXPECT_EQ(THREADMON_ENTRY_REGISTERED, entry->m_EntryStatus[1]);
    EXPECT_EQ(THREADMON_THREAD_OBJECT, entry->m_ThreadStatus[1]);
  }
  EXPECT_EQ(1, ThreadCounter);  // the module counts it down, not the host
}

TEST_F(ThreadTest, ThreadCounterCountsEveryMonitoredStart) {
  halvane::InstallThreadMonitor();
  CEvent release(0, 1, nullptr, nullptr);
  CThread first(1);
  CThread second(1);
  ASSERT_EQ(1, first.Start(WaitOnEvent, &release, 83, 0, 0, 0, 1));
  ASSERT_EQ(1, second.Start(WaitOnEvent, &release, 83, 0, 0, 0, 1));
  EXPECT_EQ(2, ThreadCounter);
  EXPECT_EQ(2, pThreadMonitor->m_EntryCount);
  EXPECT_EQ(static_cast<std::uint64_t>(first.m_ThreadId), first.ThreadMonHandle->m_ThreadId);
  EXPECT_EQ(static_cast<std::uint64_t>(second.m_ThreadId), second.ThreadMonHandle->m_ThreadId);
  release.Set();
  EXPECT_EQ(1, first.WaitForTermination(10000));
  EXPECT_EQ(1, second.WaitForTermination(10000));
}

// A thread that exits at once still finds its own entry: the exit
// bookkeeping (module code, looking the entry up by thread id) must never
// race the host's start bookkeeping.
TEST_F(ThreadTest, ThreadExitingAtOnceFindsItsEntry) {
  halvane::SetTraceSwitch(true);
  for (int round = 0; round < 40; ++round) {
    halvane::InstallThreadMonitor();
    CMonitorProbe probe;
    probe.m_ExitBookkeeping = true;
    {
      CThread thread(1);
      probe.m_pThread = &thread;
      halvane::TakeTrace();
      ASSERT_EQ(1, thread.Start(ReadOwnEntry, &probe, 83, 0, 0, 0, 1));
      ASSERT_EQ(1, thread.WaitForTermination(10000));
      const std::string trace = halvane::TakeTrace();
      char expected[512];
      std::snprintf(expected, sizeof(expected),
                    "CTHREADMONITOR::SetEntryStatusExited(): Status for entry, Handle = %p changed "
                    "(EntryStatus = 0x%08x, ThreadStatus = 0x%08x, ThreadId = 0x%08X, "
                    "ThreadCounter = %d)\n"
                    "THREAD_RETURN: ## INFO: Thread = 0x%08X exited, Return = 0x%08x##\n",
                    static_cast<void*>(thread.ThreadMonHandle), 0x10000011u, 0x101u,
                    static_cast<unsigned int>(probe.m_Self), 0,
                    static_cast<unsigned int>(probe.m_Self), 0u);
      ASSERT_EQ(expected, trace) << "round " << round;
      EXPECT_EQ(0, ThreadCounter);
    }
    halvane::RemoveThreadMonitor();
  }
}

struct CBodyProbe {
  CThread* m_pThread = nullptr;
  std::atomic<bool> m_Started{false};
  std::uint64_t m_EntryThreadId = 0;
  unsigned int m_ThreadStatus = 0;
};

void* NoteBodyStart(void* parameter) {
  auto* probe = static_cast<CBodyProbe*>(parameter);
  _CTHREADMONITOR_ENTRY* entry = probe->m_pThread->ThreadMonHandle;
  probe->m_EntryThreadId = entry->m_ThreadId;
  probe->m_ThreadStatus = entry->m_ThreadStatus[entry->m_StatusCounter];
  probe->m_Started = true;
  return nullptr;
}

// While the host's start bookkeeping cannot get the table mutex, the thread
// body must not start: the bookkeeping comes first, whatever the scheduler
// does.
TEST_F(ThreadTest, BodyWaitsForTheStartBookkeeping) {
  halvane::InstallThreadMonitor();
  CThread thread(1);
  CBodyProbe probe;
  probe.m_pThread = &thread;
  pthread_mutex_lock(pThreadMonitor->m_pTableMutex);
  auto starter = std::async(std::launch::async,
                            [&] { return thread.Start(NoteBodyStart, &probe, 83, 0, 0, 0, 1); });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(probe.m_Started.load());
  pthread_mutex_unlock(pThreadMonitor->m_pTableMutex);
  ASSERT_EQ(std::future_status::ready, starter.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(1, starter.get());
  ASSERT_EQ(1, thread.WaitForTermination(10000));
  EXPECT_TRUE(probe.m_Started.load());
  EXPECT_NE(0u, probe.m_EntryThreadId);
  EXPECT_EQ(THREADMON_THREAD_OBJECT | THREADMON_THREAD_RUNNING, probe.m_ThreadStatus);
}

TEST_F(ThreadTest, WithoutMonitorStartCountsNothing) {
  ThreadCounter = 0;
  CThread thread(1);
  EXPECT_EQ(nullptr, thread.ThreadMonHandle);
  std::atomic<int> runs{0};
  ASSERT_EQ(1, thread.Start(ReturnAtOnce, &runs, 83, 0, 0, 0, 1));
  ASSERT_EQ(1, thread.WaitForTermination(10000));
  EXPECT_EQ(1, runs.load());
  EXPECT_EQ(0, ThreadCounter);
}

TEST_F(ThreadTest, FullStatusHistoryOverwritesTheLastSlotWithAWarning) {
  halvane::InstallThreadMonitor();
  halvane::SetTraceSwitch(true);
  CThread thread(1);
  _CTHREADMONITOR_ENTRY* entry = thread.ThreadMonHandle;
  ASSERT_NE(nullptr, entry);
  // A history that is already full: slot 30 holds the state to build on.
  entry->m_StatusCounter = 31;
  entry->m_EntryStatus[30] = THREADMON_ENTRY_REGISTERED;
  entry->m_ThreadStatus[30] = THREADMON_THREAD_OBJECT;
  entry->m_EntryStatus[31] = 0x77u;
  entry->m_ThreadStatus[31] = 0x77u;
  halvane::TakeTrace();
  CEvent release(0, 1, nullptr, nullptr);
  ASSERT_EQ(1, thread.Start(WaitOnEvent, &release, 83, 0, 0, 0, 1));
  char expected[256];
  std::snprintf(expected, sizeof(expected),
                "CTHREADMONITOR::SetEntryStatus(): WARNING: Status Counter overflow for Entry =%p "
                "!!!\n",
                static_cast<void*>(entry));
  EXPECT_EQ(expected, halvane::TakeTrace());
  EXPECT_EQ(31u, entry->m_StatusCounter);
  EXPECT_EQ(THREADMON_ENTRY_REGISTERED, entry->m_EntryStatus[31]);
  EXPECT_EQ(THREADMON_THREAD_OBJECT | THREADMON_THREAD_RUNNING, entry->m_ThreadStatus[31]);
  EXPECT_EQ(THREADMON_THREAD_OBJECT, entry->m_ThreadStatus[30]);
  release.Set();
  EXPECT_EQ(1, thread.WaitForTermination(10000));
  halvane::SetTraceSwitch(false);
}

TEST_F(ThreadTest, HandleIntoARemovedTableIsNotWritten) {
  halvane::InstallThreadMonitor();
  CThread thread(1);
  ASSERT_NE(nullptr, thread.ThreadMonHandle);
  halvane::InstallThreadMonitor();  // the old table (and the handle's entry) is gone
  ASSERT_EQ(0, pThreadMonitor->m_EntryCount);
  thread.ThreadMonHandle = &pThreadMonitor->m_Entries[0];  // points at an unused slot now
  std::atomic<int> runs{0};
  ASSERT_EQ(1, thread.Start(ReturnAtOnce, &runs, 83, 0, 0, 0, 1));
  ASSERT_EQ(1, thread.WaitForTermination(10000));
  EXPECT_EQ(0, ThreadCounter);
  EXPECT_EQ(0u, pThreadMonitor->m_Entries[0].m_StatusCounter);
  EXPECT_EQ(0u, pThreadMonitor->m_Entries[0].m_ThreadId);
  thread.ThreadMonHandle = nullptr;
}

}  // namespace
