// Tests of the monotonic deadline for condition-variable waits: it lies the
// asked time after now on CLOCK_MONOTONIC and is always a valid timespec
// (nanoseconds below one second), also when the milliseconds carry over;
// and of the wait on a condition made for such deadlines: it sees a change
// made before it, wakes for one made during it, never ends before its
// deadline and without one waits for as long as it takes.
#include "util/Deadline.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <thread>

namespace {

std::int64_t Nanoseconds(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * 1000000000LL + time.tv_nsec;
}

std::int64_t MonotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return Nanoseconds(now);
}

TEST(DeadlineTest, LiesTheAskedTimeAfterNow) {
  for (const unsigned int ms : {0u, 1u, 999u, 1000u, 1500u, 2000u, 123456u}) {
    const std::int64_t before = MonotonicNow();
    const timespec deadline = korvex::MonotonicDeadlineAfter(ms);
    const std::int64_t after = MonotonicNow();
    const std::int64_t wanted = static_cast<std::int64_t>(ms) * 1000000LL;
    EXPECT_GE(Nanoseconds(deadline), before + wanted) << ms;
    EXPECT_LE(Nanoseconds(deadline), after + wanted) << ms;
    EXPECT_GE(deadline.tv_nsec, 0) << ms;
    EXPECT_LT(deadline.tv_nsec, 1000000000L) << ms;
  }
}

// Every possible carry: the nanoseconds stay normalised whatever the
// current sub-second part of the clock is.
TEST(DeadlineTest, StaysNormalisedForEveryMillisecondRest) {
  for (unsigned int ms = 0; ms < 2000; ++ms) {
    const timespec deadline = korvex::MonotonicDeadlineAfter(ms);
    ASSERT_GE(deadline.tv_nsec, 0) << ms;
    ASSERT_LT(deadline.tv_nsec, 1000000000L) << ms;
  }
}

TEST(DeadlineTest, LargestTimeOutDoesNotWrap) {
  const std::int64_t before = MonotonicNow();
  const timespec deadline = korvex::MonotonicDeadlineAfter(0xFFFFFFFEu);
  EXPECT_GT(Nanoseconds(deadline), before + 4294967LL * 1000000000LL);
  EXPECT_LT(deadline.tv_nsec, 1000000000L);
}

// A mutex and a monotonic condition with one flag behind them.
struct CGuardedFlag {
  pthread_mutex_t m_Mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t m_Changed;
  bool m_Flag = false;
  CGuardedFlag() { korvex::InitMonotonicCondition(m_Changed); }
  ~CGuardedFlag() { pthread_cond_destroy(&m_Changed); }

  bool Wait(const timespec* deadline) {
    pthread_mutex_lock(&m_Mutex);
    const bool done =
        korvex::WaitCondition(m_Changed, m_Mutex, deadline, [this] { return m_Flag; });
    pthread_mutex_unlock(&m_Mutex);
    return done;
  }
  void Raise() {
    pthread_mutex_lock(&m_Mutex);
    m_Flag = true;
    pthread_cond_broadcast(&m_Changed);
    pthread_mutex_unlock(&m_Mutex);
  }
};

TEST(DeadlineTest, ChangeMadeBeforeTheWaitIsSeen) {
  CGuardedFlag flag;
  flag.Raise();
  EXPECT_TRUE(flag.Wait(nullptr));
  const timespec past = korvex::MonotonicDeadlineAfter(0);
  EXPECT_TRUE(flag.Wait(&past));
}

// Also proves the condition's clock: on the wall clock, a monotonic
// deadline (time since boot) lies decades in the past and the wait would
// end at once.
TEST(DeadlineTest, TimedWaitEndsNotBeforeItsDeadline) {
  CGuardedFlag flag;
  const std::int64_t before = MonotonicNow();
  const timespec deadline = korvex::MonotonicDeadlineAfter(100);
  EXPECT_FALSE(flag.Wait(&deadline));
  EXPECT_GE(MonotonicNow(), Nanoseconds(deadline));
  EXPECT_GE(MonotonicNow() - before, 100LL * 1000000LL);
}

TEST(DeadlineTest, WaitWithoutDeadlineLastsUntilTheChange) {
  CGuardedFlag flag;
  std::atomic<bool> raised{false};
  std::thread raiser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    raised = true;
    flag.Raise();
  });
  EXPECT_TRUE(flag.Wait(nullptr));
  EXPECT_TRUE(raised.load());
  raiser.join();
}

TEST(DeadlineTest, TimedWaitWakesForAChangeBeforeTheDeadline) {
  CGuardedFlag flag;
  std::thread raiser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    flag.Raise();
  });
  // Generous: the change comes long before it.
  const timespec deadline = korvex::MonotonicDeadlineAfter(60000);
  EXPECT_TRUE(flag.Wait(&deadline));
  raiser.join();
}

}  // namespace
