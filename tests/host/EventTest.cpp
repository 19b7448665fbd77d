// The stand-alone host's CEvent: initial state, manual and automatic reset,
// time-outs, the wait without limit, and no lost wake-ups.
#include "frame/HostServices.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

long long MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

TEST(EventTest, SerializerEventStartsNotSignalled) {
  CEvent event(0, 1, nullptr, nullptr);
  EXPECT_EQ(0, event.Wait(0, 1));
}

TEST(EventTest, InitiallySignalledEventIsSignalled) {
  CEvent event(1, 1, nullptr, nullptr);
  EXPECT_EQ(1, event.Wait(0, 0));
}

TEST(EventTest, WaitTimesOutAfterAtLeastTheTimeout) {
  CEvent event(0, 1, nullptr, nullptr);
  const auto start = Clock::now();
  EXPECT_EQ(0, event.Wait(120, 1));
  EXPECT_GE(MillisecondsSince(start), 115);
}

TEST(EventTest, ManualResetStaysSignalledUntilReset) {
  CEvent event(0, 1, nullptr, nullptr);
  EXPECT_EQ(1, event.Set());
  EXPECT_EQ(1, event.Wait(0, 1));
  EXPECT_EQ(1, event.Wait(0, 1));
  EXPECT_EQ(1, event.Wait(CEvent::kInfinite, 1));
  EXPECT_EQ(1, event.Reset());
  EXPECT_EQ(0, event.Wait(0, 1));
  EXPECT_EQ(0, event.Wait(20, 1));
}

TEST(EventTest, AutoResetIsConsumedByOneWait) {
  CEvent event(0, 0, nullptr, nullptr);
  EXPECT_EQ(1, event.Set());
  EXPECT_EQ(1, event.Wait(0, 1));
  EXPECT_EQ(0, event.Wait(0, 1));
  EXPECT_EQ(0, event.Wait(30, 1));
}

TEST(EventTest, SetBeforeWaitIsNotLost) {
  CEvent event(0, 0, nullptr, nullptr);
  event.Set();
  auto waiter = std::async(std::launch::async, [&] { return event.Wait(CEvent::kInfinite, 1); });
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(1, waiter.get());
}

TEST(EventTest, InfiniteWaitIsWokenBySet) {
  CEvent event(0, 1, nullptr, nullptr);
  std::atomic<bool> returned{false};
  auto waiter = std::async(std::launch::async, [&] {
    const int result = event.Wait(CEvent::kInfinite, 1);
    returned = true;
    return result;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  EXPECT_FALSE(returned.load());  // really waiting, not timed out
  EXPECT_EQ(1, event.Set());
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(1, waiter.get());
}

TEST(EventTest, TimedWaitReturnsWhenSetMeanwhile) {
  CEvent event(0, 1, nullptr, nullptr);
  auto waiter = std::async(std::launch::async, [&] { return event.Wait(30000, 1); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  event.Set();
  ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(1, waiter.get());
}

TEST(EventTest, ManualResetReleasesEveryWaiter) {
  CEvent event(0, 1, nullptr, nullptr);
  std::vector<std::future<int>> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.push_back(std::async(std::launch::async, [&] { return event.Wait(CEvent::kInfinite, 1); }));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  event.Set();
  for (auto& waiter : waiters) {
    ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(1, waiter.get());
  }
}

TEST(EventTest, AutoResetReleasesOneWaiterPerSet) {
  CEvent event(0, 0, nullptr, nullptr);
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      if (event.Wait(10000, 1) == 1) ++released;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  event.Set();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(1, released.load());
  event.Set();
  event.Set();  // may coincide while the second waiter has not consumed yet
  for (int i = 0; i < 100 && released.load() < 3; ++i) {
    event.Set();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(3, released.load());
}

// Two threads hand a token back and forth through two auto-reset events. A
// lost wake-up would leave one side waiting: each wait has a generous limit
// so that such a loss fails the test instead of hanging it.
TEST(EventTest, PingPongLosesNoWakeUp) {
  CEvent ping(0, 0, nullptr, nullptr);
  CEvent pong(0, 0, nullptr, nullptr);
  constexpr int kRounds = 2000;
  std::atomic<int> failures{0};
  std::thread partner([&] {
    for (int i = 0; i < kRounds; ++i) {
      if (ping.Wait(10000, 1) != 1) ++failures;
      pong.Set();
    }
  });
  for (int i = 0; i < kRounds; ++i) {
    ping.Set();
    if (pong.Wait(10000, 1) != 1) ++failures;
  }
  partner.join();
  EXPECT_EQ(0, failures.load());
}

// The serializer's pattern: reset, then the worker waits without limit, and
// another thread sets once. Repeated so that the set lands at every point of
// the waiter's path into the wait.
TEST(EventTest, SetRacingTheWaitIsNeverLost) {
  for (int round = 0; round < 300; ++round) {
    CEvent event(0, 1, nullptr, nullptr);
    event.Reset();
    auto waiter = std::async(std::launch::async, [&] { return event.Wait(10000, 1); });
    event.Set();
    ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(15)));
    ASSERT_EQ(1, waiter.get()) << "round " << round;
  }
}

void* WaitForever(void* parameter) {
  static_cast<CEvent*>(parameter)->Wait(CEvent::kInfinite, 1);
  return nullptr;
}

// A thread cancelled inside the wait (as CThread::Kill does) must not leave
// the event's mutex locked: Set, Wait and the destructor still work.
TEST(EventTest, CancelledWaiterLeavesTheEventUsable) {
  CEvent event(0, 1, nullptr, nullptr);
  pthread_t waiter;
  ASSERT_EQ(0, pthread_create(&waiter, nullptr, WaitForever, &event));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_EQ(0, pthread_cancel(waiter));
  void* result = nullptr;
  ASSERT_EQ(0, pthread_join(waiter, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
  auto setter = std::async(std::launch::async, [&] { return event.Set(); });
  ASSERT_EQ(std::future_status::ready, setter.wait_for(std::chrono::seconds(10)));
  EXPECT_EQ(1, setter.get());
  EXPECT_EQ(1, event.Wait(0, 1));
}

}  // namespace
