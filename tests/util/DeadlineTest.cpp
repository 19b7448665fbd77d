// Tests of the monotonic deadline for condition-variable waits: it lies the
// asked time after now on CLOCK_MONOTONIC and is always a valid timespec
// (nanoseconds below one second), also when the milliseconds carry over.
#include "util/Deadline.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>

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

}  // namespace
