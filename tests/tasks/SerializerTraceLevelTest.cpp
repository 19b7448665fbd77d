// Every trace line of the serializer at its level: one scenario that passes
// through all of them (refused level, start, a busy worker, a full queue, a
// failing task, external events, termination, destruction), run at every
// trace level; lines above the level must be missing and all others present
// in their order.
#include "tests/tasks/SerializerTestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace serializer_test {
namespace {

class SerializerTraceLevels : public SerializerTest,
                              public ::testing::WithParamInterface<unsigned int> {};

TEST_P(SerializerTraceLevels, EveryLineIsWrittenAtItsLevel) {
  CTraceScript script(GetParam());
  auto serializer = std::make_unique<CTestSerializer>();
  CGate gate;
  serializer->m_OnExecute = [&](SipJson& task, Priority) {
    if (task.ObjectId() == 100) {
      EXPECT_TRUE(gate.Pass());
    }
    if (task.ObjectId() == 1) throw std::runtime_error("the first task fails");
  };
  script.Expect(4, line::EnableAll());
  script.Sync("construction");

  auto refused = MakeTask(50);
  EXPECT_EQ(0, serializer->InsertTask(*refused, Level(1), nullptr));
  script.Expect(4, line::Raised(1));
  script.Expect(4, line::Locked(1));
  script.Sync("unknown level");

  serializer->StartSerialization();
  ExpectStart(script, *serializer);
  script.Sync("start");

  auto busy = MakeTask(100);
  CEvent busyEvent(0, 1, nullptr, nullptr);
  int result = 0;
  Record* busyRecord =
      serializer->InsertWatched(*busy, CSerializer::TASK_PRIORITY_0, &busyEvent, &result);
  ASSERT_EQ(1, result);
  ASSERT_TRUE(serializer->WaitExecuted(1));
  ExpectPickedUp(script, busyRecord, 100);
  script.Sync("busy task");

  std::vector<std::unique_ptr<SipJson>> tasks;
  std::vector<Record*> records;
  for (unsigned int id = 1; id <= 20; ++id) {
    tasks.push_back(MakeTask(id));
    records.push_back(
        serializer->InsertWatched(*tasks.back(), CSerializer::TASK_PRIORITY_0, nullptr, &result));
    EXPECT_EQ(id < 20 ? 1 : 0, result) << "task " << id;
    script.Expect(4, line::Raised(0));
    if (id < 20) {
      script.Expect(5, line::Inserted(0));
    } else {
      script.Expect(1, line::Full(0));
      script.Expect(1, line::HookOverrun(20, 0));
    }
  }
  script.Sync("queue filled");

  gate.Open();
  script.Expect(5, line::Completed(busyRecord, 0));
  script.Expect(5, line::EventSet(&busyEvent));
  script.Expect(4, line::Waiting());
  for (unsigned int id = 1; id <= 19; ++id) {
    ExpectRun(script, records[id - 1], id, 0, nullptr, id == 1, id == 19);
  }
  ExpectEmptyScan(script);
  script.Sync("worked off");
  ASSERT_TRUE(serializer->WaitExecuted(20));

  serializer->TerminateSerialization();
  ExpectIdleTermination(script, serializer->WorkerThread());
  script.Sync("termination");

  serializer.reset();
  ExpectDestruction(script);
  script.Finish("destruction");

  alloc::Unwatch(busyRecord);
  for (Record* record : records) {
    if (record != nullptr) alloc::Unwatch(record);
  }
}

INSTANTIATE_TEST_SUITE_P(Levels, SerializerTraceLevels, ::testing::Values(0u, 1u, 2u, 3u, 4u, 5u));

TEST_F(SerializerTest, NothingIsTracedWithTheSwitchOff) {
  halvane::TraceToMemory();
  halvane::SetTraceLevel(5);
  halvane::SetTraceSwitch(false);
  const unsigned long callsBefore = halvane::PrintCallCount();
  {
    CTestSerializer serializer;
    serializer.StartSerialization();
    auto task = MakeTask(1);
    EXPECT_EQ(1, serializer.InsertTask(*task, CSerializer::TASK_PRIORITY_0, nullptr));
    EXPECT_EQ(0, serializer.InsertTask(*task, Level(3), nullptr));
    ASSERT_TRUE(serializer.WaitExecuted(1));
  }
  EXPECT_EQ(callsBefore, halvane::PrintCallCount());
  EXPECT_EQ("", halvane::TakeTrace());
}

}  // namespace
}  // namespace serializer_test
