// Tests of the wake event and of the one wait for "a wake-up, a signal or a
// deadline": which of them CWaiter reports, that a pending signal wins over
// a pending wake-up, that a wait never ends before its deadline (also when a
// signal handler interrupts it), that -1 descriptors are not watched and
// that a broken descriptor is an error rather than a hang. Time is only ever
// asserted as "not before"; nothing here measures speed.
#include "util/Waiter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace {

using korvex::CFd;
using korvex::CWaiter;
using korvex::CWakeEvent;
using Woken = CWaiter::Woken;
using Clock = CWaiter::Clock;
using std::chrono::milliseconds;

bool Readable(int fd) {
  pollfd descriptor{fd, POLLIN, 0};
  return ::poll(&descriptor, 1, 0) == 1 && (descriptor.revents & POLLIN) != 0;
}

// A pipe, or a failed test.
korvex::CPipeEnds Pipe() {
  korvex::CPipeEnds ends;
  EXPECT_TRUE(korvex::OpenPipe(ends));
  return ends;
}

void Put(const korvex::CPipeEnds& pipe) { EXPECT_EQ(::write(pipe.m_Write.Get(), "s", 1), 1); }

TEST(WaiterTest, WakeEventIsQuietUntilNotified) {
  CWakeEvent wake;
  ASSERT_GE(wake.Fd(), 0);
  EXPECT_FALSE(Readable(wake.Fd()));
  wake.Notify();
  EXPECT_TRUE(Readable(wake.Fd()));
}

TEST(WaiterTest, DrainTakesEveryPendingNotification) {
  CWakeEvent wake;
  wake.Notify();
  wake.Notify();
  wake.Notify();
  wake.Drain();
  EXPECT_FALSE(Readable(wake.Fd()));
}

// Nothing pending: Drain must return rather than block the caller.
TEST(WaiterTest, DrainWithNothingPendingReturns) {
  CWakeEvent wake;
  wake.Drain();
  EXPECT_FALSE(Readable(wake.Fd()));
}

// Without a deadline the wait lasts until another thread notifies, however
// long that takes: it must not come back early or with kDeadline.
TEST(WaiterTest, NoDeadlineWaitsUntilNotifiedFromAnotherThread) {
  CWakeEvent wake;
  std::atomic<bool> notified{false};
  std::thread notifier([&] {
    std::this_thread::sleep_for(milliseconds(300));
    notified = true;
    wake.Notify();
  });
  const Woken woken = CWaiter(wake.Fd(), -1).Wait();
  notifier.join();
  EXPECT_EQ(woken, Woken::kWake);
  EXPECT_TRUE(notified.load());
  wake.Drain();
  EXPECT_FALSE(Readable(wake.Fd()));
}

TEST(WaiterTest, ReadablePipeCountsAsSignal) {
  CWakeEvent wake;
  auto signal = Pipe();
  Put(signal);
  EXPECT_EQ(CWaiter(wake.Fd(), signal.m_Read.Get()).WaitFor(milliseconds(5000)), Woken::kSignal);
}

// A real signal descriptor: SIGUSR2 blocked in this thread and sent to it
// stays pending and makes the signalfd readable.
TEST(WaiterTest, PendingSignalOnASignalfdIsReported) {
  sigset_t mask;
  sigset_t previous;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR2);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &mask, &previous), 0);
  CFd signalFd(::signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));
  ASSERT_TRUE(signalFd.Valid());
  CWakeEvent wake;
  const CWaiter waiter(wake.Fd(), signalFd.Get());
  EXPECT_EQ(waiter.WaitFor(milliseconds(20)), Woken::kDeadline);
  ASSERT_EQ(pthread_kill(pthread_self(), SIGUSR2), 0);
  EXPECT_EQ(waiter.WaitFor(milliseconds(5000)), Woken::kSignal);
  signalfd_siginfo info{};
  EXPECT_EQ(::read(signalFd.Get(), &info, sizeof(info)), static_cast<ssize_t>(sizeof(info)));
  EXPECT_EQ(info.ssi_signo, static_cast<unsigned int>(SIGUSR2));
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

// A stream of replies must never starve a stop.
TEST(WaiterTest, SignalWinsOverWakeWhenBothAreReady) {
  CWakeEvent wake;
  auto signal = Pipe();
  wake.Notify();
  Put(signal);
  const CWaiter waiter(wake.Fd(), signal.m_Read.Get());
  for (int i = 0; i < 10; ++i) EXPECT_EQ(waiter.Wait(), Woken::kSignal);
  // Once the signal is read, the wake-up left pending comes through.
  char byte = 0;
  ASSERT_EQ(::read(signal.m_Read.Get(), &byte, 1), 1);
  EXPECT_EQ(waiter.Wait(), Woken::kWake);
}

TEST(WaiterTest, DeadlineIsNeverReportedEarly) {
  CWakeEvent wake;
  auto signal = Pipe();
  const auto start = Clock::now();
  EXPECT_EQ(CWaiter(wake.Fd(), signal.m_Read.Get()).WaitFor(milliseconds(120)), Woken::kDeadline);
  EXPECT_GE(Clock::now() - start, milliseconds(120));
}

// A sub-millisecond rest of the deadline must not turn into a busy loop or
// an early return: WaitUntil with an odd point in time still ends after it.
TEST(WaiterTest, DeadlineBetweenMillisecondsIsNotReportedEarly) {
  const auto deadline = Clock::now() + std::chrono::microseconds(20500);
  EXPECT_EQ(CWaiter(-1, -1).WaitUntil(deadline), Woken::kDeadline);
  EXPECT_GE(Clock::now(), deadline);
}

TEST(WaiterTest, DeadlineInThePastReturnsWithoutWaiting) {
  // No descriptor at all: a wait that did not return at once would never
  // return, so the test would hang instead of pass.
  const CWaiter waiter(-1, -1);
  EXPECT_EQ(waiter.WaitUntil(Clock::now() - std::chrono::seconds(1)), Woken::kDeadline);
  EXPECT_EQ(waiter.WaitFor(milliseconds(0)), Woken::kDeadline);
}

// What is already there is reported even when the deadline has passed: a
// reply that arrived in time is not taken for a time-out.
TEST(WaiterTest, ReadyWakeBeatsAPassedDeadline) {
  CWakeEvent wake;
  wake.Notify();
  EXPECT_EQ(CWaiter(wake.Fd(), -1).WaitUntil(Clock::now() - milliseconds(10)), Woken::kWake);
}

TEST(WaiterTest, MinusOneDescriptorsAreNotWatched) {
  CWakeEvent wake;
  wake.Notify();
  EXPECT_EQ(CWaiter(wake.Fd(), -1).WaitFor(milliseconds(5000)), Woken::kWake);
  auto signal = Pipe();
  Put(signal);
  EXPECT_EQ(CWaiter(-1, signal.m_Read.Get()).WaitFor(milliseconds(5000)), Woken::kSignal);
  EXPECT_EQ(CWaiter(-1, -1).WaitFor(milliseconds(30)), Woken::kDeadline);
}

std::atomic<int> g_Interruptions{0};
void CountInterruption(int) { g_Interruptions.fetch_add(1); }

// A signal handler (installed without SA_RESTART) interrupting the poll
// must neither end the wait early nor be taken for an error.
TEST(WaiterTest, InterruptedWaitGoesOnUntilTheDeadline) {
  struct sigaction action {};
  struct sigaction old {};
  action.sa_handler = CountInterruption;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGUSR1, &action, &old);
  const int before = g_Interruptions.load();
  Woken woken = Woken::kError;
  std::atomic<bool> done{false};
  const auto start = Clock::now();
  std::thread waiter([&] {
    woken = CWaiter(-1, -1).WaitFor(milliseconds(300));
    done = true;
  });
  while (!done.load()) {
    pthread_kill(waiter.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(milliseconds(20));
  }
  waiter.join();
  ::sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(woken, Woken::kDeadline);
  EXPECT_GE(Clock::now() - start, milliseconds(300));
  EXPECT_GT(g_Interruptions.load(), before);
}

// A descriptor that is not open (or broken) is reported, never waited on
// for ever and never taken for a wake-up.
TEST(WaiterTest, DescriptorThatIsNotOpenIsAnError) {
  int number = -1;
  {
    auto pipe = Pipe();
    number = pipe.m_Read.Get();
  }
  EXPECT_EQ(CWaiter(number, -1).Wait(), Woken::kError);
  EXPECT_EQ(CWaiter(-1, number).Wait(), Woken::kError);
}

TEST(WaiterTest, HungUpPipeIsAnError) {
  auto pipe = Pipe();
  pipe.m_Write.Reset();
  EXPECT_EQ(CWaiter(pipe.m_Read.Get(), -1).Wait(), Woken::kError);
}

// Out of descriptors: the constructor throws rather than hand out an event
// with Fd() -1, which every wait would silently ignore.
TEST(WaiterTest, EventfdFailureThrows) {
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizer runtime (built together with the undefined-behaviour
  // checks) opens a pipe of its own to check the exception object while it
  // is made, which fails for want of descriptors and is reported as an
  // invalid object.
  GTEST_SKIP() << "the sanitizer runtime needs free descriptors itself";
#endif
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  const int lowestFree = ::fcntl(0, F_DUPFD_CLOEXEC, 0);
  ASSERT_GE(lowestFree, 0);
  ::close(lowestFree);
  rlimit none = old;
  none.rlim_cur = static_cast<rlim_t>(lowestFree);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_THROW(CWakeEvent(), std::system_error);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
}

}  // namespace
