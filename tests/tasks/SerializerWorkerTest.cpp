// The serializer's active half: StartSerialization, the worker loop,
// TerminateSerialization (with and without a live worker, idle, busy and
// stuck in a job) and destruction, with every trace line in its place.
#include "tests/support/TempFiles.h"
#include "tests/tasks/SerializerTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <pthread.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace serializer_test {
namespace {

class SerializerWorker : public SerializerTest {};

TEST_F(SerializerWorker, OneTaskWhileTheWorkerWaits) {
  CTraceScript script;
  auto serializer = std::make_unique<CTestSerializer>();
  script.Expect(4, line::EnableAll());
  Record* record = nullptr;
  int freedBeforeEmpty = -1;
  serializer->m_OnEmpty = [&](Priority) { freedBeforeEmpty = alloc::Freed(record) ? 1 : 0; };
  serializer->StartSerialization();
  ExpectStart(script, *serializer);
  script.Sync("start");

  auto task = MakeTask(11);
  CEvent event(0, 1, nullptr, nullptr);
  int result = 0;
  {
    // Under the serializer's lock, which the empty report also runs under:
    // the hook reads `record` only after this assignment.
    std::lock_guard<CCriticalSection> guard(serializer->Lock());
    record = serializer->InsertWatched(*task, CSerializer::TASK_PRIORITY_0, &event, &result);
  }
  ASSERT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  ExpectRun(script, record, 11, 0, &event, false, true);
  ExpectEmptyScan(script);
  script.Sync("one task");

  EXPECT_EQ(std::vector<unsigned int>{11}, serializer->Executed());
  ASSERT_EQ(1u, serializer->ExecutedTasks().size());
  EXPECT_EQ(&record->m_Task, serializer->ExecutedTasks()[0]);
  EXPECT_EQ(1, event.Wait(0, 1));
  EXPECT_EQ(1, freedBeforeEmpty);  // the record was freed before the empty report
  alloc::Unwatch(record);
  EXPECT_EQ(std::vector<int>{0}, serializer->Empty());
  // The empty scan reset the wake-up event: the worker sleeps again.
  EXPECT_EQ(0, serializer->WakeupEvent().Wait(0, 1));
  EXPECT_EQ(0u, serializer->Queue(0).m_Used);

  const pthread_t worker = serializer->WorkerThread();
  serializer.reset();
  ExpectIdleTermination(script, worker);
  script.Expect(4, line::Terminate());
  script.Expect(5, line::Terminated());
  script.Expect(4, line::Destroyed());
  script.Finish("destruction");
}

class SerializerWorkerThrowing : public SerializerTest,
                                 public ::testing::WithParamInterface<int> {};

TEST_P(SerializerWorkerThrowing, TaskStillSetsItsEventFreesItsRecordAndTheNextTaskRuns) {
  CTraceScript script;
  CTestSerializer serializer;
  CGate gate;
  const int kind = GetParam();
  serializer.m_OnExecute = [&](SipJson& task, Priority) {
    if (task.ObjectId() == 100) {
      EXPECT_TRUE(gate.Pass());
    }
    if (task.ObjectId() != 1) return;
    switch (kind) {
      case 0:
        throw std::runtime_error("job failed");
      case 1:
        throw 42;
      default:
        throw std::bad_alloc();
    }
  };
  script.Expect(4, line::EnableAll());
  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("start");

  auto busy = MakeTask(100);
  int result = 0;
  Record* busyRecord =
      serializer.InsertWatched(*busy, CSerializer::TASK_PRIORITY_0, nullptr, &result);
  ExpectPickedUp(script, busyRecord, 100);
  script.Sync("busy task running");

  auto throwing = MakeTask(1);
  auto next = MakeTask(2);
  CEvent throwingEvent(0, 1, nullptr, nullptr);
  CEvent nextEvent(0, 1, nullptr, nullptr);
  Record* throwingRecord =
      serializer.InsertWatched(*throwing, CSerializer::TASK_PRIORITY_0, &throwingEvent, &result);
  ASSERT_EQ(1, result);
  Record* nextRecord =
      serializer.InsertWatched(*next, CSerializer::TASK_PRIORITY_0, &nextEvent, &result);
  ASSERT_EQ(1, result);
  for (int i = 0; i < 2; ++i) {
    script.Expect(4, line::Raised(0));
    script.Expect(5, line::Inserted(0));
  }
  script.Sync("two tasks queued");

  gate.Open();
  script.Expect(5, line::Completed(busyRecord, 0));
  script.Expect(4, line::Waiting());
  ExpectRun(script, throwingRecord, 1, 0, &throwingEvent, true, false);
  ExpectRun(script, nextRecord, 2, 0, &nextEvent, false, true);
  ExpectEmptyScan(script);
  script.Sync("worked off");

  EXPECT_EQ((std::vector<unsigned int>{100, 1, 2}), serializer.Executed());
  EXPECT_EQ(1, throwingEvent.Wait(0, 1));
  EXPECT_EQ(1, nextEvent.Wait(0, 1));
  for (Record* record : {busyRecord, throwingRecord, nextRecord}) {
    EXPECT_TRUE(alloc::Freed(record));
    alloc::Unwatch(record);
  }
  EXPECT_TRUE(serializer.WorkerAlive());
}

INSTANTIATE_TEST_SUITE_P(AnyException, SerializerWorkerThrowing, ::testing::Values(0, 1, 2));

TEST_F(SerializerWorker, TwoQueuedTasksRunInOrderAndTheEmptyQueueIsReportedOnceAfterTheSecond) {
  CTraceScript script;
  CTestSerializer serializer;
  script.Expect(4, line::EnableAll());
  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("start");

  auto first = MakeTask(1);
  auto second = MakeTask(2);
  Record* firstRecord = nullptr;
  Record* secondRecord = nullptr;
  {
    // Both go in before the worker can take the first one out.
    std::lock_guard<CCriticalSection> guard(serializer.Lock());
    int result = 0;
    firstRecord = serializer.InsertWatched(*first, CSerializer::TASK_PRIORITY_0, nullptr, &result);
    ASSERT_EQ(1, result);
    secondRecord =
        serializer.InsertWatched(*second, CSerializer::TASK_PRIORITY_0, nullptr, &result);
    ASSERT_EQ(1, result);
  }
  for (int i = 0; i < 2; ++i) {
    script.Expect(4, line::Raised(0));
    script.Expect(5, line::Inserted(0));
  }
  // The worker wakes at the first insert; everything it writes keeps its
  // own order.
  script.Worker(4, line::Wakeup());
  script.Worker(4, line::Checking());
  script.Worker(5, line::Process(firstRecord, 0));
  script.Worker(1, line::HookExecute(1, 0));
  script.Worker(5, line::Completed(firstRecord, 0));
  script.Worker(4, line::Waiting());
  script.Worker(4, line::Wakeup());
  script.Worker(4, line::Checking());
  script.Worker(5, line::Process(secondRecord, 0));
  script.Worker(1, line::HookExecute(2, 0));
  script.Worker(5, line::Completed(secondRecord, 0));
  script.Worker(1, line::HookEmpty(0));
  script.Worker(4, line::Waiting());
  script.Worker(4, line::Wakeup());
  script.Worker(4, line::Checking());
  script.Worker(4, line::Waiting());
  script.Sync("two tasks");

  EXPECT_EQ((std::vector<unsigned int>{1, 2}), serializer.Executed());
  EXPECT_EQ(std::vector<int>{0}, serializer.Empty());
  for (Record* record : {firstRecord, secondRecord}) {
    EXPECT_TRUE(alloc::Freed(record));
    alloc::Unwatch(record);
  }
}

TEST_F(SerializerWorker, IdleTerminationEndsTheThreadWithItsExitBookkeeping) {
  halvane::InstallThreadMonitor();
  {
    CTraceScript script;
    auto serializer = std::make_unique<CTestSerializer>();
    _CTHREADMONITOR_ENTRY* const entry = serializer->Worker().ThreadMonHandle;
    ASSERT_NE(nullptr, entry);
    script.Expect(1, Format("CTHREADMONITOR::RegisterEntry(): new entry (pentry = %p) registered\n",
                            static_cast<void*>(entry)));
    script.Expect(4, line::EnableAll());
    script.Sync("construction");

    const int counterBefore = ThreadCounter;
    serializer->StartSerialization();
    ExpectStart(script, *serializer);
    script.Sync("start");
    ASSERT_NE(nullptr, entry->m_pszDebugName);
    EXPECT_STREQ("SerializerTests", entry->m_pszDebugName);
    ASSERT_NE(nullptr, entry->m_pszQualifier);
    EXPECT_STREQ("_TaskHndlr", entry->m_pszQualifier);

    const pthread_t worker = serializer->WorkerThread();
    EXPECT_EQ(static_cast<std::uint64_t>(worker), entry->m_ThreadId);
    serializer->TerminateSerialization();
    ExpectIdleWorkerStopping(script);
    script.Expect(1, Format("CTHREADMONITOR::SetEntryStatusExited(): Status for entry, Handle = %p "
                            "changed (EntryStatus = 0x%08x, ThreadStatus = 0x%08x, ThreadId = "
                            "0x%08X, ThreadCounter = %d)\n",
                            static_cast<void*>(entry), 0x10000011u, 0x00000101u,
                            static_cast<unsigned int>(worker), counterBefore));
    script.Expect(1, line::ThreadReturn(worker));
    script.Expect(5, line::Terminated());
    script.Sync("termination");

    EXPECT_EQ(1, serializer->Stopped());
    EXPECT_FALSE(serializer->WorkerAlive());
    EXPECT_EQ(pthread_t{}, serializer->Worker().m_ThreadId);
    EXPECT_EQ(counterBefore, ThreadCounter);
    // Registered, object made, started by the host, exited.
    EXPECT_EQ(3u, entry->m_StatusCounter);
    EXPECT_EQ(0x10000011u, entry->m_EntryStatus[3]);
    EXPECT_EQ(0x00000101u, entry->m_ThreadStatus[3]);

    serializer.reset();
    ExpectDestruction(script);
    script.Finish("destruction");
    EXPECT_EQ(4u, entry->m_StatusCounter);
    EXPECT_EQ(0x10000811u, entry->m_EntryStatus[4]);
    EXPECT_EQ(0x10000100u, entry->m_ThreadStatus[4]);
  }
  halvane::RemoveThreadMonitor();
}

TEST_F(SerializerWorker, TerminationDropsQueuedTasksWithoutRunningOrAnsweringThem) {
  CTraceScript script;
  CTestSerializer serializer;
  script.Expect(4, line::EnableAll());
  // Queued before the start: the worker will not see them before the next
  // insert, and the termination comes first.
  auto first = MakeTask(1);
  auto second = MakeTask(2);
  CEvent firstEvent(0, 1, nullptr, nullptr);
  CEvent secondEvent(0, 1, nullptr, nullptr);
  int result = 0;
  Record* firstRecord =
      serializer.InsertWatched(*first, CSerializer::TASK_PRIORITY_0, &firstEvent, &result);
  ASSERT_EQ(1, result);
  Record* secondRecord =
      serializer.InsertWatched(*second, CSerializer::TASK_PRIORITY_0, &secondEvent, &result);
  ASSERT_EQ(1, result);
  for (int i = 0; i < 2; ++i) {
    script.Expect(4, line::Raised(0));
    script.Expect(5, line::Inserted(0));
  }
  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("queued and started");

  serializer.TerminateSerialization();
  ExpectIdleTermination(script, serializer.WorkerThread());
  script.Sync("termination");

  EXPECT_TRUE(serializer.Executed().empty());
  EXPECT_TRUE(serializer.Empty().empty());
  EXPECT_EQ(0, firstEvent.Wait(0, 1));
  EXPECT_EQ(0, secondEvent.Wait(0, 1));
  EXPECT_EQ(0u, serializer.Queue(0).m_Used);
  EXPECT_EQ(0u, serializer.Queue(0).m_ReadIndex);
  EXPECT_EQ(0u, serializer.Queue(0).m_WriteIndex);
  // Dropped, not freed: the records are deliberately forgotten (the leak
  // checker is told about exactly this in tests/sanitizer/lsan.supp).
  EXPECT_FALSE(alloc::Freed(firstRecord));
  EXPECT_FALSE(alloc::Freed(secondRecord));
  alloc::Unwatch(firstRecord);
  alloc::Unwatch(secondRecord);
}

TEST_F(SerializerWorker, TerminationWhileBusyLetsTheRunningTaskFinishAndDropsTheRest) {
  CTraceScript script;
  CTestSerializer serializer;
  CGate gate;
  serializer.m_OnExecute = [&](SipJson& task, Priority) {
    if (task.ObjectId() == 100) {
      EXPECT_TRUE(gate.Pass());
    }
  };
  script.Expect(4, line::EnableAll());
  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("start");

  auto busy = MakeTask(100);
  CEvent busyEvent(0, 1, nullptr, nullptr);
  int result = 0;
  Record* busyRecord =
      serializer.InsertWatched(*busy, CSerializer::TASK_PRIORITY_0, &busyEvent, &result);
  ASSERT_EQ(1, result);
  ExpectPickedUp(script, busyRecord, 100);
  script.Sync("busy task running");

  auto dropped = MakeTask(1);
  CEvent droppedEvent(0, 1, nullptr, nullptr);
  Record* droppedRecord =
      serializer.InsertWatched(*dropped, CSerializer::TASK_PRIORITY_0, &droppedEvent, &result);
  ASSERT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  script.Sync("second task queued");

  const pthread_t worker = serializer.WorkerThread();
  std::thread terminator([&] { serializer.TerminateSerialization(); });
  // Let the running task end once the termination has emptied the queues.
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (serializer.TerminateFlag() == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_EQ(1u, serializer.TerminateFlag());
  gate.Open();
  terminator.join();

  script.Expect(4, line::Terminate());
  script.Expect(4, line::DisableAll());
  script.Expect(4, line::AllRemoved());
  script.Expect(5, line::Completed(busyRecord, 0));
  script.Expect(5, line::EventSet(&busyEvent));
  // The termination emptied the queue under the running task.
  script.Expect(1, line::HookEmpty(0));
  script.Expect(1, line::HookStopped());
  script.Expect(4, line::ExitThread());
  script.Expect(1, line::ThreadReturn(worker));
  script.Expect(5, line::Terminated());
  script.Sync("termination");

  EXPECT_EQ(std::vector<unsigned int>{100}, serializer.Executed());
  EXPECT_EQ(1, busyEvent.Wait(0, 1));
  EXPECT_TRUE(alloc::Freed(busyRecord));
  EXPECT_EQ(0, droppedEvent.Wait(0, 1));
  EXPECT_FALSE(alloc::Freed(droppedRecord));
  alloc::Unwatch(busyRecord);
  alloc::Unwatch(droppedRecord);
}

TEST_F(SerializerWorker, TerminationWithoutAWorkerOnlyTraces) {
  CTraceScript script;
  auto serializer = std::make_unique<CTestSerializer>();
  script.Expect(4, line::EnableAll());
  auto task = MakeTask(1);
  CEvent event(0, 1, nullptr, nullptr);
  int result = 0;
  Record* record = serializer->InsertWatched(*task, CSerializer::TASK_PRIORITY_0, &event, &result);
  ASSERT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  script.Sync("queued");

  serializer->TerminateSerialization();
  script.Expect(4, line::Terminate());
  script.Expect(5, line::Terminated());
  script.Sync("termination");
  EXPECT_EQ(1u, serializer->Enabled(0));
  EXPECT_EQ(0u, serializer->TerminateFlag());
  EXPECT_EQ(8u, serializer->Queue(0).m_Used);
  EXPECT_FALSE(alloc::Freed(record));

  // Still accepting.
  auto another = MakeTask(2);
  Record* anotherRecord =
      serializer->InsertWatched(*another, CSerializer::TASK_PRIORITY_0, nullptr, &result);
  EXPECT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  script.Sync("insert after termination");

  // The destructor frees what the worker never took.
  serializer.reset();
  ExpectDestruction(script);
  script.Finish("destruction");
  EXPECT_TRUE(alloc::Freed(record));
  EXPECT_TRUE(alloc::Freed(anotherRecord));
  EXPECT_EQ(0, event.Wait(0, 1));
  alloc::Unwatch(record);
  alloc::Unwatch(anotherRecord);
}

TEST_F(SerializerWorker, SecondStartStartsNothing) {
  CTraceScript script;
  auto serializer = std::make_unique<CTestSerializer>();
  script.Expect(4, line::EnableAll());
  serializer->StartSerialization();
  ExpectStart(script, *serializer);
  script.Sync("first start");
  const pthread_t thread = serializer->Worker().m_ThreadId;

  serializer->StartSerialization();
  script.Expect(4, line::StartSerialization());
  script.Sync("second start");
  EXPECT_TRUE(pthread_equal(thread, serializer->Worker().m_ThreadId));
  EXPECT_EQ(1, serializer->Started());

  // Still the one worker, and it still works.
  auto task = MakeTask(3);
  int result = 0;
  Record* record = serializer->InsertWatched(*task, CSerializer::TASK_PRIORITY_0, nullptr, &result);
  ASSERT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  ExpectRun(script, record, 3, 0, nullptr, false, true);
  ExpectEmptyScan(script);
  script.Sync("task");
  alloc::Unwatch(record);

  const pthread_t worker = serializer->WorkerThread();
  EXPECT_TRUE(pthread_equal(thread, worker));
  serializer.reset();
  ExpectIdleTermination(script, worker);
  script.Expect(4, line::Terminate());
  script.Expect(5, line::Terminated());
  script.Expect(4, line::Destroyed());
  script.Finish("destruction");
}

TEST_F(SerializerWorker, TasksQueuedBeforeTheStartWaitForTheNextInsert) {
  CTraceScript script;
  CTestSerializer serializer;
  script.Expect(4, line::EnableAll());
  auto early = MakeTask(1);
  int result = 0;
  Record* earlyRecord =
      serializer.InsertWatched(*early, CSerializer::TASK_PRIORITY_0, nullptr, &result);
  ASSERT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  // The insert set the event; the start resets it before the worker exists
  // and the worker waits before it looks at the queues.
  EXPECT_EQ(1, serializer.WakeupEvent().Wait(0, 1));
  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("start");

  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(serializer.Executed().empty());
  EXPECT_EQ(8u, serializer.Queue(0).m_Used);
  EXPECT_EQ(0, serializer.WakeupEvent().Wait(0, 1));

  auto trigger = MakeTask(2);
  Record* triggerRecord =
      serializer.InsertWatched(*trigger, CSerializer::TASK_PRIORITY_0, nullptr, &result);
  ASSERT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  ExpectRun(script, earlyRecord, 1, 0, nullptr, false, false);
  ExpectRun(script, triggerRecord, 2, 0, nullptr, false, true);
  ExpectEmptyScan(script);
  script.Sync("both ran");
  EXPECT_EQ((std::vector<unsigned int>{1, 2}), serializer.Executed());
  alloc::Unwatch(earlyRecord);
  alloc::Unwatch(triggerRecord);
}

TEST_F(SerializerWorker, OnTaskExecutionRunsWithoutTheLockAndMayInsertTasks) {
  CTestSerializer serializer;
  std::thread other;
  bool lockFree = false;
  bool otherInserted = false;
  int ownInsert = -1;
  serializer.m_OnExecute = [&](SipJson& task, Priority) {
    if (task.ObjectId() != 1) return;
    lockFree = !serializer.Lock().OwnedByCaller();
    // Would wait for this task to end if the worker held the lock.
    auto inserted = std::make_shared<std::promise<int>>();
    std::future<int> done = inserted->get_future();
    other = std::thread([&serializer, inserted] {
      auto second = MakeTask(2);
      inserted->set_value(serializer.InsertTask(*second, CSerializer::TASK_PRIORITY_0, nullptr));
    });
    otherInserted = done.wait_for(kPatience) == std::future_status::ready && done.get() == 1;
    auto third = MakeTask(3);
    ownInsert = serializer.InsertTask(*third, CSerializer::TASK_PRIORITY_0, nullptr);
  };
  serializer.StartSerialization();
  auto first = MakeTask(1);
  ASSERT_EQ(1, serializer.InsertTask(*first, CSerializer::TASK_PRIORITY_0, nullptr));
  EXPECT_TRUE(serializer.WaitExecuted(3));
  serializer.TerminateSerialization();  // the worker, and with it the task, is gone now
  if (other.joinable()) other.join();
  EXPECT_TRUE(lockFree);
  EXPECT_TRUE(otherInserted);
  EXPECT_EQ(1, ownInsert);
  EXPECT_EQ((std::vector<unsigned int>{1, 2, 3}), serializer.Executed());
}

TEST_F(SerializerWorker, ThreadFunctionWithoutASerializerOnlyReportsItsExit) {
  CTraceScript script;
  EXPECT_EQ(nullptr, CSerializer::Thread_RunTaskHandler(nullptr));
  script.Expect(1, line::ThreadReturn(pthread_self()));
  script.Finish("thread function");
}

// ---------------------------------------------------------------------------
// A worker killed inside a job that never returns

class SerializerWorkerKill : public SerializerTest {
 protected:
  // Starts the worker and hands it task (id 1), whose job never returns;
  // *record is the record in flight once the job has begun.
  void StickOneTask(CTestSerializer& serializer, CTraceScript& script, SipJson& task,
                    Record** record) {
    script.Expect(4, line::EnableAll());
    serializer.StartSerialization();
    ExpectStart(script, serializer);
    script.Sync("start");
    int result = 0;
    *record = serializer.InsertWatched(task, CSerializer::TASK_PRIORITY_0, nullptr, &result);
    ASSERT_EQ(1, result);
    ExpectPickedUp(script, *record, 1);
    script.Sync("stuck task");
  }

  // Terminates a worker that is blocked in task 1 and checks what is left.
  void TerminateStuckWorker(CTestSerializer& serializer, CTraceScript& script, Record* record) {
    serializer.TerminateSerialization();
    // Neither the task's end, nor an exception, nor the worker's own exit:
    // the thread was cancelled and unwound.
    script.Expect(4, line::Terminate());
    script.Expect(4, line::DisableAll());
    script.Expect(4, line::AllRemoved());
    script.Expect(5, line::Terminated());
    script.Sync("termination of a stuck worker");

    EXPECT_FALSE(serializer.WorkerAlive());
    EXPECT_EQ(pthread_t{}, serializer.Worker().m_ThreadId);
    EXPECT_EQ(0, serializer.Stopped());
    EXPECT_EQ(std::vector<unsigned int>{1}, serializer.Executed());
    // The record in flight went with the unwinding worker.
    EXPECT_TRUE(alloc::Freed(record));
    alloc::Unwatch(record);

    // The process lives on, and so does the serializer: a new worker starts
    // (its levels stay disabled).
    serializer.StartSerialization();
    ExpectStart(script, serializer);
    script.Sync("restart");
    EXPECT_TRUE(serializer.WorkerAlive());
    EXPECT_EQ(2, serializer.Started());
  }
};

TEST_F(SerializerWorkerKill, WorkerBlockedInAnEventWaitIsKilledAndTheProcessLivesOn) {
  CEvent never(0, 1, nullptr, nullptr);
  CTraceScript script;
  {
    CTestSerializer serializer;
    serializer.m_OnExecute = [&](SipJson&, Priority) {
      never.Wait(CEvent::kInfinite, 1);  // nobody sets it: only a cancellation ends this
      ADD_FAILURE() << "the wait returned";
    };
    auto task = MakeTask(1);
    Record* record = nullptr;
    ASSERT_NO_FATAL_FAILURE(StickOneTask(serializer, script, *task, &record));

    TerminateStuckWorker(serializer, script, record);
  }
  // The event the killed task waited on is still usable.
  EXPECT_EQ(1, never.Set());
  EXPECT_EQ(1, never.Wait(0, 1));
}

TEST_F(SerializerWorkerKill, WorkerBlockedInAChildProcessIsKilledAndTheChildCanBeEnded) {
  const korvex_test::CTempDir directory("serializer-tests");
  const std::string sleeper = directory / "sleeper";
  korvex_test::WriteFile(sleeper, "#!/bin/sh\nexec sleep 120\n", 0755);
  unsigned int processId = 0;
  CTraceScript script;
  {
    CTestSerializer serializer;
    serializer.m_OnExecute = [&](SipJson&, Priority) {
      unsigned int exitCode = 0;
      CProcess::ExecuteCmd(sleeper.c_str(), processId, exitCode, nullptr, false);
      ADD_FAILURE() << "ExecuteCmd returned with exit code " << exitCode;
    };
    auto task = MakeTask(1);
    Record* record = nullptr;
    ASSERT_NO_FATAL_FAILURE(StickOneTask(serializer, script, *task, &record));
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (__atomic_load_n(&processId, __ATOMIC_ACQUIRE) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_NE(0u, __atomic_load_n(&processId, __ATOMIC_ACQUIRE));

    TerminateStuckWorker(serializer, script, record);
  }
  // The child outlived the killed worker and can still be ended.
  const unsigned int child = __atomic_load_n(&processId, __ATOMIC_ACQUIRE);
  EXPECT_TRUE(CProcess::TerminateProcess(child, 1));
  unsigned int exitCode = 0;
  EXPECT_TRUE(CProcess::WaitForExit(child, exitCode, 10000));
  EXPECT_EQ(1u, exitCode);
}

}  // namespace
}  // namespace serializer_test
