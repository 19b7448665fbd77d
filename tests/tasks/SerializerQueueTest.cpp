// The serializer's passive half: construction, InsertTask with its
// acceptance and full tests, the byte ring, the enabling of levels and the
// hand-made re-entrant lock.
#include "tests/tasks/SerializerTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

namespace serializer_test {
namespace {

// ---------------------------------------------------------------------------
// Construction

class SerializerConstruction : public SerializerTest {};

TEST_F(SerializerConstruction, EnablesItsOneLevelWithAnEmptyRingOf160Bytes) {
  CTraceScript script;
  {
    CTestSerializer serializer;
    script.Expect(4, line::EnableAll());
    script.Sync("construction");

    EXPECT_EQ(1u, serializer.LevelCount());
    ASSERT_NE(nullptr, serializer.Levels());
    EXPECT_EQ(1u, serializer.Enabled(0));
    EXPECT_EQ(1u, serializer.Serviced(0));
    CRingBuffer& queue = serializer.Queue(0);
    EXPECT_EQ(0u, queue.m_Used);
    EXPECT_EQ(0u, queue.m_ReadIndex);
    EXPECT_EQ(0u, queue.m_WriteIndex);
    EXPECT_NE(nullptr, queue.m_pBuffer);
    EXPECT_EQ(160u, queue.m_Size);
    EXPECT_EQ(1u, queue.m_OwnsStorage);
    EXPECT_EQ(0u, serializer.TerminateFlag());
    EXPECT_EQ(0u, serializer.ThreadStartOption());
    EXPECT_EQ(pthread_t{}, serializer.Worker().m_ThreadId);
    EXPECT_EQ(1u, serializer.Worker().KillStillAliveThread);
    // Created non-signalled.
    EXPECT_EQ(0, serializer.WakeupEvent().Wait(0, 1));
    ExpectDestruction(script);
  }
  script.Finish("destruction");
}

TEST_F(SerializerConstruction, MembersStandInTheHostsOrder) {
  // The level table, lock, event, worker, start option, level count and
  // terminate flag follow each other in this order.
  struct CProbe : CTestSerializer {
    static void Check(CProbe& probe) {
      auto at = [&](const void* member) {
        return reinterpret_cast<const char*>(member) - reinterpret_cast<const char*>(&probe);
      };
      EXPECT_LT(at(&probe.m_pLevels), at(&probe.m_Lock));
      EXPECT_LT(at(&probe.m_Lock), at(&probe.m_WakeupEvent));
      EXPECT_LT(at(&probe.m_WakeupEvent), at(&probe.m_Thread));
      EXPECT_LT(at(&probe.m_Thread), at(&probe.m_ThreadStartOption));
      EXPECT_EQ(at(&probe.m_ThreadStartOption) + 4, at(&probe.m_LevelCount));
      EXPECT_EQ(at(&probe.m_LevelCount) + 4, at(&probe.m_TerminateFlag));
    }
  };
  CProbe probe;
  CProbe::Check(probe);
  static_assert(offsetof(CRingBuffer, m_Used) == 0);
  static_assert(offsetof(CRingBuffer, m_ReadIndex) == 8);
  static_assert(offsetof(CRingBuffer, m_WriteIndex) == 16);
  static_assert(offsetof(CRingBuffer, m_pBuffer) == 24);
  static_assert(offsetof(CRingBuffer, m_Size) == 32);
  static_assert(offsetof(CRingBuffer, m_OwnsStorage) == 40);
  static_assert(offsetof(CCriticalSection, m_Owner) == sizeof(pthread_mutex_t));
  static_assert(offsetof(CCriticalSection, m_Count) == sizeof(pthread_mutex_t) + 8);
  static_assert(offsetof(CCriticalSection, m_Valid) == sizeof(pthread_mutex_t) + 12);
  static_assert(offsetof(CSerializer::_TaskLevel, m_pQueue) == 0);
  static_assert(offsetof(CSerializer::_TaskLevel, m_Enabled) == 8);
  static_assert(offsetof(CSerializer::_TaskLevel, m_Serviced) == 12);
  static_assert(sizeof(Priority) == 4 && static_cast<Priority>(-1) < 0,
                "a level number is a signed 32-bit value");
}

// ---------------------------------------------------------------------------
// InsertTask

class SerializerInsert : public SerializerTest {};

TEST_F(SerializerInsert, PriorityZeroIsQueuedTracedAndSetsTheWakeupEvent) {
  CTraceScript script;
  auto serializer = std::make_unique<CTestSerializer>();
  script.Expect(4, line::EnableAll());
  script.Sync("construction");
  ASSERT_EQ(0, serializer->WakeupEvent().Wait(0, 1));

  auto task = MakeTask(7);
  CEvent event(0, 1, nullptr, nullptr);
  int result = -1;
  Record* record = serializer->InsertWatched(*task, CSerializer::TASK_PRIORITY_0, &event, &result);
  EXPECT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  script.Sync("insert");

  ASSERT_NE(nullptr, record);
  EXPECT_EQ(8u, serializer->Queue(0).m_Used);
  EXPECT_EQ(0u, serializer->Queue(0).m_ReadIndex);
  EXPECT_EQ(8u, serializer->Queue(0).m_WriteIndex);
  // The ring holds the record pointer's bytes in memory order.
  unsigned char expected[sizeof(Record*)];
  std::memcpy(expected, &record, sizeof(record));
  EXPECT_EQ(std::vector<unsigned char>(expected, expected + 8),
            std::vector<unsigned char>(serializer->Queue(0).m_pBuffer,
                                       serializer->Queue(0).m_pBuffer + 8));
  EXPECT_EQ(&event, record->m_pExternalEvent);
  EXPECT_NE(task.get(), &record->m_Task);
  EXPECT_EQ(task->ToJson(), record->m_Task.ToJson());
  EXPECT_EQ(1, serializer->WakeupEvent().Wait(0, 1));
  // Only the worker sets the caller's event, after the task ran.
  EXPECT_EQ(0, event.Wait(0, 1));
  EXPECT_TRUE(serializer->Overruns().empty());

  // Without a worker, destruction frees what is still queued.
  EXPECT_FALSE(alloc::Freed(record));
  serializer.reset();
  EXPECT_TRUE(alloc::Freed(record));
  alloc::Unwatch(record);
  EXPECT_EQ(0, event.Wait(0, 1));
  ExpectDestruction(script);
  script.Finish("destruction");
}

class SerializerInsertUnknownLevel : public SerializerTest,
                                     public ::testing::WithParamInterface<int> {};

TEST_P(SerializerInsertUnknownLevel, IsRefusedWithTheLevelLockedTrace) {
  const int level = GetParam();
  CTraceScript script;
  CTestSerializer serializer;
  script.Expect(4, line::EnableAll());
  script.Sync("construction");

  auto task = MakeTask(1);
  CEvent event(0, 1, nullptr, nullptr);
  const std::string before = task->ToJson();
  EXPECT_EQ(0, serializer.InsertTask(*task, Level(level), &event));
  script.Expect(4, line::Raised(level));
  script.Expect(4, line::Locked(level));
  script.Sync("refused insert");

  EXPECT_TRUE(serializer.Overruns().empty());
  EXPECT_EQ(0u, serializer.Queue(0).m_Used);
  EXPECT_EQ(0u, serializer.Queue(0).m_WriteIndex);
  EXPECT_EQ(0, serializer.WakeupEvent().Wait(0, 1));
  EXPECT_EQ(0, event.Wait(0, 1));
  EXPECT_EQ(before, task->ToJson());

  // Nothing is copied for a refused level: no record is even built.
  halvane::SetTraceSwitch(false);
  alloc::BeginWindow(sizeof(Record));
  EXPECT_EQ(0, serializer.InsertTask(*task, Level(level), nullptr));
  const alloc::WindowResult window = alloc::EndWindow();
  halvane::SetTraceSwitch(true);
  EXPECT_EQ(0, window.allocated);
  ExpectDestruction(script);
}

INSTANTIATE_TEST_SUITE_P(OnlyLevelZeroExists, SerializerInsertUnknownLevel,
                         ::testing::Values(1, -1, 2, 0x7FFFFFFF, static_cast<int>(0x80000000u)));

TEST_F(SerializerInsert, TwentiethTaskIsRefusedAsFullWithoutLeakingItsRecord) {
  CTraceScript script;
  CTestSerializer serializer;
  CGate gate;
  serializer.m_OnExecute = [&](SipJson& task, Priority) {
    if (task.ObjectId() == 100) {
      EXPECT_TRUE(gate.Pass());
    }
  };
  CCriticalSection& lock = serializer.Lock();
  bool lockHeldInOverrun = false;
  int nestingInOverrun = -1;
  serializer.m_OnOverrun = [&](SipJson&, Priority) {
    lockHeldInOverrun = lock.OwnedByCaller();
    nestingInOverrun = lock.m_Count;
  };
  script.Expect(4, line::EnableAll());
  script.Sync("construction");

  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("start");

  // The worker is kept busy by task 100 while the queue fills up.
  auto busy = MakeTask(100);
  int result = 0;
  Record* busyRecord =
      serializer.InsertWatched(*busy, CSerializer::TASK_PRIORITY_0, nullptr, &result);
  ASSERT_EQ(1, result);
  script.Expect(4, line::Raised(0));
  script.Expect(5, line::Inserted(0));
  script.Sync("busy task inserted");
  script.Expect(4, line::Wakeup());
  script.Expect(4, line::Checking());
  script.Expect(5, line::Process(busyRecord, 0));
  script.Expect(1, line::HookExecute(100, 0));
  script.Sync("busy task running");

  std::vector<std::unique_ptr<SipJson>> tasks;
  std::vector<Record*> records;
  for (unsigned int id = 1; id <= 19; ++id) {
    tasks.push_back(MakeTask(id));
    records.push_back(
        serializer.InsertWatched(*tasks.back(), CSerializer::TASK_PRIORITY_0, nullptr, &result));
    EXPECT_EQ(1, result) << "task " << id;
    script.Expect(4, line::Raised(0));
    script.Expect(5, line::Inserted(0));
  }
  script.Sync("nineteen inserted");
  EXPECT_EQ(152u, serializer.Queue(0).m_Used);

  auto twentieth = MakeTask(20);
  const std::string before = twentieth->ToJson();
  EXPECT_EQ(0, serializer.InsertTask(*twentieth, CSerializer::TASK_PRIORITY_0, nullptr));
  script.Expect(4, line::Raised(0));
  script.Expect(1, line::Full(0));
  script.Expect(1, line::HookOverrun(20, 0));
  script.Sync("twentieth refused");
  ASSERT_EQ(1u, serializer.Overruns().size());
  EXPECT_EQ(twentieth.get(), serializer.Overruns()[0].first);  // the caller's own message
  EXPECT_EQ(0, serializer.Overruns()[0].second);
  EXPECT_TRUE(lockHeldInOverrun);
  EXPECT_EQ(1, nestingInOverrun);
  EXPECT_EQ(before, twentieth->ToJson());
  EXPECT_EQ(152u, serializer.Queue(0).m_Used);

  // Once more without tracing, counting the record-sized blocks made on this
  // thread: the refused record was built and destroyed again.
  halvane::SetTraceSwitch(false);
  alloc::BeginWindow(sizeof(Record));
  EXPECT_EQ(0, serializer.InsertTask(*twentieth, CSerializer::TASK_PRIORITY_0, nullptr));
  const alloc::WindowResult window = alloc::EndWindow();
  halvane::SetTraceSwitch(true);
  EXPECT_EQ(1, window.allocated);
  EXPECT_EQ(0, window.live);
  EXPECT_EQ(2u, serializer.Overruns().size());

  // The worker finishes task 100 and works off all nineteen, in order.
  gate.Open();
  script.Expect(5, line::Completed(busyRecord, 0));
  script.Expect(4, line::Waiting());
  for (unsigned int id = 1; id <= 19; ++id) {
    ExpectRun(script, records[id - 1], id, 0, nullptr, false, id == 19);
  }
  ExpectEmptyScan(script);
  script.Sync("queue worked off");
  std::vector<unsigned int> order{100};
  for (unsigned int id = 1; id <= 19; ++id) order.push_back(id);
  EXPECT_EQ(order, serializer.Executed());
  EXPECT_TRUE(alloc::Freed(busyRecord));
  alloc::Unwatch(busyRecord);
  for (Record* record : records) {
    EXPECT_TRUE(alloc::Freed(record));
    alloc::Unwatch(record);
  }
  EXPECT_EQ(0u, serializer.Queue(0).m_Used);
}

// ---------------------------------------------------------------------------
// The byte ring

class SerializerRing : public SerializerTest {};

TEST_F(SerializerRing, IndicesWrapAt160AndTasksComeOutInInsertionOrder) {
  CTestSerializer serializer;
  serializer.StartSerialization();
  CRingBuffer& queue = serializer.Queue(0);
  std::vector<unsigned int> expected;
  for (unsigned int id = 1; id <= 45; ++id) {
    auto task = MakeTask(id);
    ASSERT_EQ(1, serializer.InsertTask(*task, CSerializer::TASK_PRIORITY_0, nullptr));
    expected.push_back(id);
    ASSERT_TRUE(serializer.WaitExecuted(id));
    // The index moves on by 8 per record and is wrapped only before the
    // next byte is written: after the 20th record it stands at 160.
    std::lock_guard<CCriticalSection> guard(serializer.Lock());
    EXPECT_EQ((id - 1) % 20 * 8 + 8, queue.m_WriteIndex) << "after task " << id;
  }
  // Wait for the worker to take out the last record.
  serializer.TerminateSerialization();
  EXPECT_EQ(expected, serializer.Executed());
}

TEST_F(SerializerRing, RecordPointerSplitAcrossTheEndOfTheStorageComesOutWhole) {
  CTestSerializer serializer;
  CRingBuffer& queue = serializer.Queue(0);
  {
    // An empty ring whose next byte is the 157th of 160: the first record's
    // pointer is written into bytes 156..159 and 0..3.
    std::lock_guard<CCriticalSection> guard(serializer.Lock());
    queue.m_ReadIndex = 156;
    queue.m_WriteIndex = 156;
  }
  std::vector<std::unique_ptr<SipJson>> tasks;
  std::vector<Record*> records;
  int result = 0;
  for (unsigned int id = 1; id <= 3; ++id) {
    tasks.push_back(MakeTask(id));
    records.push_back(
        serializer.InsertWatched(*tasks.back(), CSerializer::TASK_PRIORITY_0, nullptr, &result));
    ASSERT_EQ(1, result);
  }
  EXPECT_EQ(24u, queue.m_Used);
  EXPECT_EQ(20u, queue.m_WriteIndex);
  unsigned char first[8];
  std::memcpy(first, &records[0], sizeof(first));
  EXPECT_EQ(std::vector<unsigned char>(first, first + 4),
            std::vector<unsigned char>(queue.m_pBuffer + 156, queue.m_pBuffer + 160));
  EXPECT_EQ(std::vector<unsigned char>(first + 4, first + 8),
            std::vector<unsigned char>(queue.m_pBuffer, queue.m_pBuffer + 4));

  // Queued before the start: they run once the next insert wakes the worker.
  serializer.StartSerialization();
  tasks.push_back(MakeTask(4));
  records.push_back(
      serializer.InsertWatched(*tasks.back(), CSerializer::TASK_PRIORITY_0, nullptr, &result));
  ASSERT_EQ(1, result);
  ASSERT_TRUE(serializer.WaitExecuted(4));
  serializer.TerminateSerialization();

  EXPECT_EQ((std::vector<unsigned int>{1, 2, 3, 4}), serializer.Executed());
  const std::vector<SipJson*> executed = serializer.ExecutedTasks();
  ASSERT_EQ(4u, executed.size());
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(&records[i]->m_Task, executed[i]) << "record " << i;
    EXPECT_TRUE(alloc::Freed(records[i]));
    alloc::Unwatch(records[i]);
  }
  EXPECT_EQ(0u, queue.m_Used);
}

TEST(SerializerRingBuffer, StoresBytesOneAtATimeAcrossTheWrap) {
  CRingBuffer ring(20);
  ASSERT_NE(nullptr, ring.m_pBuffer);
  EXPECT_EQ(20u, ring.m_Size);
  EXPECT_EQ(1u, ring.m_OwnsStorage);
  const std::uint64_t a = 0x0807060504030201ull;
  const std::uint64_t b = 0x1817161514131211ull;
  const std::uint64_t c = 0x2827262524232221ull;
  std::uint64_t out = 0;
  ASSERT_TRUE(ring.Write(&a, 8));
  ASSERT_TRUE(ring.Write(&b, 8));
  ASSERT_TRUE(ring.Read(&out, 8));
  EXPECT_EQ(a, out);
  // 16 bytes written, 8 held: c takes bytes 16..19 and 0..3.
  ASSERT_TRUE(ring.Write(&c, 8));
  EXPECT_EQ(16u, ring.m_Used);
  EXPECT_EQ(4u, ring.m_WriteIndex);
  unsigned char cBytes[8];
  std::memcpy(cBytes, &c, 8);
  EXPECT_EQ(std::vector<unsigned char>(cBytes, cBytes + 4),
            std::vector<unsigned char>(ring.m_pBuffer + 16, ring.m_pBuffer + 20));
  EXPECT_EQ(std::vector<unsigned char>(cBytes + 4, cBytes + 8),
            std::vector<unsigned char>(ring.m_pBuffer, ring.m_pBuffer + 4));
  ASSERT_TRUE(ring.Read(&out, 8));
  EXPECT_EQ(b, out);
  EXPECT_EQ(16u, ring.m_ReadIndex);
  ASSERT_TRUE(ring.Read(&out, 8));
  EXPECT_EQ(c, out);
  EXPECT_EQ(4u, ring.m_ReadIndex);
  EXPECT_EQ(0u, ring.m_Used);
}

TEST(SerializerRingBuffer, NeverOverwritesOrOverreads) {
  CRingBuffer ring(20);
  const std::uint64_t a = 1, b = 2, c = 3;
  std::uint64_t out = 0;
  ASSERT_TRUE(ring.Write(&a, 8));
  ASSERT_TRUE(ring.Write(&b, 8));
  EXPECT_FALSE(ring.Write(&c, 8));  // 4 bytes free
  EXPECT_EQ(16u, ring.m_Used);
  EXPECT_EQ(16u, ring.m_WriteIndex);
  ASSERT_TRUE(ring.Read(&out, 8));
  ASSERT_TRUE(ring.Read(&out, 8));
  EXPECT_EQ(b, out);
  EXPECT_FALSE(ring.Read(&out, 1));
  EXPECT_EQ(0u, ring.m_Used);
}

TEST(SerializerRingBuffer, FreeStorageLeavesARingWithoutStorage) {
  CRingBuffer ring(160);
  ring.FreeStorage();
  EXPECT_EQ(nullptr, ring.m_pBuffer);
  EXPECT_EQ(0u, ring.m_Size);
  const std::uint64_t a = 1;
  EXPECT_FALSE(ring.Write(&a, 8));
  ring.FreeStorage();  // a second time, and the destructor, do nothing
}

// ---------------------------------------------------------------------------
// Levels are enabled at construction and never again

class SerializerLevels : public SerializerTest {};

TEST_F(SerializerLevels, AfterTerminationEveryInsertIsRefusedAlsoAfterARestart) {
  CTraceScript script;
  CTestSerializer serializer;
  script.Expect(4, line::EnableAll());
  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("start");
  const pthread_t first = serializer.WorkerThread();

  serializer.TerminateSerialization();
  ExpectIdleTermination(script, first);
  script.Sync("termination");
  EXPECT_EQ(0u, serializer.Enabled(0));
  EXPECT_FALSE(serializer.WorkerAlive());

  auto task = MakeTask(1);
  EXPECT_EQ(0, serializer.InsertTask(*task, CSerializer::TASK_PRIORITY_0, nullptr));
  script.Expect(4, line::Raised(0));
  script.Expect(4, line::Locked(0));
  script.Sync("insert after termination");

  serializer.StartSerialization();
  ExpectStart(script, serializer);
  script.Sync("restart");
  EXPECT_TRUE(serializer.WorkerAlive());
  EXPECT_EQ(0u, serializer.Enabled(0));
  EXPECT_EQ(0u, serializer.TerminateFlag());

  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(0, serializer.InsertTask(*task, CSerializer::TASK_PRIORITY_0, nullptr));
    script.Expect(4, line::Raised(0));
    script.Expect(4, line::Locked(0));
  }
  script.Sync("inserts after restart");
  EXPECT_EQ(0u, serializer.Queue(0).m_Used);
  EXPECT_TRUE(serializer.Executed().empty());
  EXPECT_TRUE(serializer.Overruns().empty());
  EXPECT_EQ(2, serializer.Started());
}

// ---------------------------------------------------------------------------
// The queued copy belongs to the serializer

TEST_F(SerializerInsert, CallerMayChangeOrDestroyItsMessageRightAfterInsertTask) {
  CTestSerializer serializer;
  CGate gate;
  std::string seenJson;
  std::string seenExtra;
  const char* seenExtraAddress = nullptr;
  serializer.m_OnExecute = [&](SipJson& task, Priority) {
    if (task.ObjectId() == 100) {
      EXPECT_TRUE(gate.Pass());
      return;
    }
    seenJson = task.ToJson();
    seenExtra = task.m_pszExtra != nullptr ? task.m_pszExtra : "(null)";
    seenExtraAddress = task.m_pszExtra;
  };
  serializer.StartSerialization();
  auto busy = MakeTask(100);
  ASSERT_EQ(1, serializer.InsertTask(*busy, CSerializer::TASK_PRIORITY_0, nullptr));
  ASSERT_TRUE(serializer.WaitExecuted(1));

  auto task = MakeTask(5);
  task->SetCmdValue(task->GetCmd(), "TO", 300, 0);
  task->m_pszExtra = strdup("the caller's text");
  task->m_CmdIndex = 0;
  const std::string original = task->ToJson();
  const char* originalExtra = task->m_pszExtra;
  ASSERT_EQ(1, serializer.InsertTask(*task, CSerializer::TASK_PRIORITY_0, nullptr));

  // Changed at once, then destroyed, while the copy is still queued.
  task->SetCmdValue(task->GetCmd(), "OI", 6, 0);
  task->SetStatus(13);
  std::strcpy(task->m_pszExtra, "overwritten text!");
  EXPECT_NE(original, task->ToJson());
  task.reset();

  gate.Open();
  ASSERT_TRUE(serializer.WaitExecuted(2));
  serializer.TerminateSerialization();
  EXPECT_EQ((std::vector<unsigned int>{100, 5}), serializer.Executed());
  EXPECT_EQ(original, seenJson);
  EXPECT_EQ("the caller's text", seenExtra);
  EXPECT_NE(originalExtra, seenExtraAddress);
}

// ---------------------------------------------------------------------------
// The lock

TEST(SerializerLock, IsReentrantForItsOwnerAndCountsTheNesting) {
  CCriticalSection lock;
  ASSERT_EQ(1u, lock.m_Valid);
  EXPECT_EQ(0u, lock.m_Owner);
  EXPECT_EQ(0, lock.m_Count);
  lock.Lock();
  lock.Lock();
  EXPECT_EQ(static_cast<std::uint64_t>(pthread_self()), lock.m_Owner);
  EXPECT_EQ(2, lock.m_Count);
  lock.Unlock();
  EXPECT_EQ(1, lock.m_Count);
  EXPECT_TRUE(lock.OwnedByCaller());
  lock.Unlock();
  EXPECT_EQ(0, lock.m_Count);
  EXPECT_EQ(0u, lock.m_Owner);
  // Released for good: another thread takes it at once.
  std::thread other([&] {
    lock.Lock();
    lock.Unlock();
  });
  other.join();
}

TEST(SerializerLock, ExcludesOtherThreadsAndIgnoresTheirRelease) {
  CCriticalSection lock;
  lock.Lock();
  std::atomic<bool> entered{false};
  std::thread other([&] {
    lock.Unlock();  // not the owner: changes nothing
    lock.Lock();
    entered = true;
    lock.Unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(entered.load());
  EXPECT_EQ(1, lock.m_Count);
  EXPECT_TRUE(lock.OwnedByCaller());
  lock.Unlock();
  other.join();
  EXPECT_TRUE(entered.load());
  EXPECT_EQ(0, lock.m_Count);
}

TEST(SerializerLock, WithoutAMutexItOnlyCounts) {
  CCriticalSection lock;
  // As after a failed pthread_mutex_init.
  pthread_mutex_destroy(&lock.m_Mutex);
  lock.m_Valid = 0;
  lock.Lock();
  lock.Lock();
  EXPECT_EQ(2, lock.m_Count);
  EXPECT_EQ(0u, lock.m_Owner);
  lock.Unlock();
  EXPECT_EQ(2, lock.m_Count);
}

}  // namespace
}  // namespace serializer_test
