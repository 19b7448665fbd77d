// Four threads insert thousands of tasks while the worker runs them: per
// thread the tasks run in insertion order, nothing is lost beyond what was
// refused as full, one task runs at a time, and the serializer ends empty.
// Built with the thread and the address sanitizers as well.
#include "tests/tasks/SerializerTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace serializer_test {
namespace {

constexpr int kThreads = 4;
constexpr unsigned int kTasksPerThread = 3000;
constexpr unsigned int kIdBase = 100000;  // id = thread * kIdBase + sequence number

class SerializerStress : public SerializerTest {};

TEST_F(SerializerStress, FourInsertingThreadsAgainstOneWorker) {
  CTestSerializer serializer;
  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  std::atomic<unsigned int> executed{0};
  std::atomic<unsigned int> executedAtLastEmpty{0};
  std::vector<std::vector<unsigned int>> ran(kThreads);  // written by the worker only
  std::atomic<int> badIds{0};

  serializer.m_OnExecute = [&](SipJson& task, Priority) {
    if (running.fetch_add(1) != 0) overlaps.fetch_add(1);
    const unsigned int id = task.ObjectId();
    const unsigned int thread = id / kIdBase;
    if (thread < static_cast<unsigned int>(kThreads)) {
      ran[thread].push_back(id % kIdBase);
    } else {
      badIds.fetch_add(1);
    }
    // A little work, so that the queue runs full now and then.
    for (volatile int spin = 0; spin < 2000; spin = spin + 1) {
    }
    running.fetch_sub(1);
    executed.fetch_add(1, std::memory_order_release);
  };
  serializer.m_OnEmpty = [&](Priority) {
    executedAtLastEmpty.store(executed.load(std::memory_order_acquire));
  };
  serializer.StartSerialization();

  std::atomic<bool> go{false};
  std::vector<unsigned int> accepted(kThreads, 0);
  std::vector<unsigned int> refused(kThreads, 0);
  std::vector<std::thread> inserters;
  for (int t = 0; t < kThreads; ++t) {
    inserters.emplace_back([&, t] {
      while (!go.load()) std::this_thread::yield();
      for (unsigned int sequence = 0; sequence < kTasksPerThread; ++sequence) {
        auto task = MakeTask(static_cast<unsigned int>(t) * kIdBase + sequence);
        if (serializer.InsertTask(*task, CSerializer::TASK_PRIORITY_0, nullptr) == 1) {
          ++accepted[t];
        } else {
          ++refused[t];
          std::this_thread::yield();
        }
      }
    });
  }
  go.store(true);
  for (auto& inserter : inserters) inserter.join();

  unsigned int totalAccepted = 0;
  unsigned int totalRefused = 0;
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(kTasksPerThread, accepted[t] + refused[t]) << "thread " << t;
    EXPECT_GT(accepted[t], 0u) << "thread " << t;
    totalAccepted += accepted[t];
    totalRefused += refused[t];
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (executed.load(std::memory_order_acquire) < totalAccepted &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(totalAccepted, executed.load(std::memory_order_acquire));
  // Idle again: the last scan found nothing and reset the event.
  while (serializer.WakeupEvent().Wait(0, 1) != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(0, serializer.WakeupEvent().Wait(0, 1));

  EXPECT_EQ(0, overlaps.load());
  EXPECT_EQ(0, badIds.load());
  EXPECT_EQ(totalRefused, serializer.Overruns().size());
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(accepted[t], ran[t].size()) << "thread " << t;
    for (std::size_t i = 1; i < ran[t].size(); ++i) {
      ASSERT_LT(ran[t][i - 1], ran[t][i]) << "thread " << t << " ran out of order at " << i;
    }
  }
  {
    std::lock_guard<CCriticalSection> guard(serializer.Lock());
    EXPECT_EQ(0u, serializer.Queue(0).m_Used);
    EXPECT_EQ(serializer.Queue(0).m_ReadIndex, serializer.Queue(0).m_WriteIndex);
  }
  EXPECT_FALSE(serializer.Empty().empty());
  EXPECT_EQ(totalAccepted, executedAtLastEmpty.load());
  EXPECT_EQ(totalAccepted, serializer.Executed().size());
  serializer.TerminateSerialization();
  EXPECT_FALSE(serializer.WorkerAlive());
  EXPECT_EQ(1, serializer.Stopped());
}

}  // namespace
}  // namespace serializer_test
