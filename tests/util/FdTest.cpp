// Tests of the owned descriptor (CFd: closes exactly once, moves, gives up,
// takes another) and of the EINTR retry (RetryOnEintr / KORVEX_RETRY: a
// call interrupted by a signal is made again and completes; any other
// failure comes back once, with its errno), plus the whole-buffer reads and
// writes built on it.
#include "util/Fd.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

using korvex::CFd;

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

// A pipe, or a failed test.
korvex::CPipeEnds Pipe() {
  korvex::CPipeEnds ends;
  EXPECT_TRUE(korvex::OpenPipe(ends));
  return ends;
}

TEST(FdTest, EmptyHoldsNothing) {
  CFd fd;
  EXPECT_EQ(fd.Get(), -1);
  EXPECT_FALSE(fd.Valid());
  EXPECT_FALSE(static_cast<bool>(fd));
}

TEST(FdTest, DestructorClosesTheDescriptor) {
  int number = -1;
  {
    auto pipe = Pipe();
    ASSERT_TRUE(pipe.m_Read.Valid());
    number = pipe.m_Read.Get();
    EXPECT_TRUE(static_cast<bool>(pipe.m_Read));
    EXPECT_TRUE(IsOpen(number));
  }
  EXPECT_FALSE(IsOpen(number));
}

// The number of a closed descriptor is handed out again at once; a second
// close through a stale owner would close somebody else's descriptor.
TEST(FdTest, MovedFromOwnerNeverClosesTheNumberAgain) {
  auto pipe = Pipe();
  ASSERT_TRUE(pipe.m_Read.Valid());
  const int number = pipe.m_Read.Get();
  CFd moved(std::move(pipe.m_Read));
  EXPECT_EQ(moved.Get(), number);
  EXPECT_EQ(pipe.m_Read.Get(), -1);
  moved.Reset();
  EXPECT_FALSE(IsOpen(number));
  // Someone else now gets the same number.
  ASSERT_EQ(::dup2(pipe.m_Write.Get(), number), number);
  CFd reused(number);
  {
    CFd stale(std::move(pipe.m_Read));  // holds nothing
    stale.Reset();
  }
  moved.Reset();  // holds nothing either
  EXPECT_TRUE(IsOpen(number));
}

TEST(FdTest, MoveAssignmentClosesTheOldDescriptorAndTakesTheNew) {
  auto first = Pipe();
  auto second = Pipe();
  const int old = first.m_Read.Get();
  const int taken = second.m_Read.Get();
  first.m_Read = std::move(second.m_Read);
  EXPECT_FALSE(IsOpen(old));
  EXPECT_EQ(first.m_Read.Get(), taken);
  EXPECT_EQ(second.m_Read.Get(), -1);
  EXPECT_TRUE(IsOpen(taken));
}

TEST(FdTest, SelfMoveAssignmentKeepsTheDescriptor) {
  auto pipe = Pipe();
  const int number = pipe.m_Read.Get();
  CFd& alias = pipe.m_Read;
  pipe.m_Read = std::move(alias);
  EXPECT_EQ(pipe.m_Read.Get(), number);
  EXPECT_TRUE(IsOpen(number));
}

TEST(FdTest, ReleaseGivesTheDescriptorUpWithoutClosingIt) {
  int number = -1;
  {
    auto pipe = Pipe();
    number = pipe.m_Read.Release();
    EXPECT_FALSE(pipe.m_Read.Valid());
  }
  EXPECT_TRUE(IsOpen(number));
  ::close(number);
}

TEST(FdTest, ResetClosesTheOldAndHoldsTheNew) {
  auto pipe = Pipe();
  const int old = pipe.m_Read.Get();
  const int fresh = ::dup(pipe.m_Write.Get());
  ASSERT_GE(fresh, 0);
  pipe.m_Read.Reset(fresh);
  EXPECT_FALSE(IsOpen(old));
  EXPECT_EQ(pipe.m_Read.Get(), fresh);
  EXPECT_TRUE(IsOpen(fresh));
}

TEST(FdTest, OpenPipeConnectsTwoCloseOnExecEnds) {
  auto pipe = Pipe();
  ASSERT_TRUE(pipe.m_Read.Valid());
  ASSERT_TRUE(pipe.m_Write.Valid());
  EXPECT_NE(::fcntl(pipe.m_Read.Get(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(::fcntl(pipe.m_Write.Get(), F_GETFD) & FD_CLOEXEC, 0);
  ASSERT_EQ(::write(pipe.m_Write.Get(), "p", 1), 1);
  char byte = 0;
  EXPECT_EQ(::read(pipe.m_Read.Get(), &byte, 1), 1);
  EXPECT_EQ(byte, 'p');
}

TEST(FdTest, OpenPipeTakesTheFlagsGiven) {
  korvex::CPipeEnds ends;
  ASSERT_TRUE(korvex::OpenPipe(ends, O_NONBLOCK));
  EXPECT_EQ(::fcntl(ends.m_Read.Get(), F_GETFD) & FD_CLOEXEC, 0);
  char byte = 0;
  EXPECT_EQ(::read(ends.m_Read.Get(), &byte, 1), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST(FdTest, OpenPipeFailureLeavesTheEndsAlone) {
  korvex::CPipeEnds ends;
  EXPECT_FALSE(korvex::OpenPipe(ends, -1));  // no such flags
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(ends.m_Read.Valid());
  EXPECT_FALSE(ends.m_Write.Valid());
}

// ----- retry -----------------------------------------------------------------

std::atomic<int> g_Interruptions{0};
void CountInterruption(int) { g_Interruptions.fetch_add(1); }

// Installs a SIGUSR1 handler without SA_RESTART, so that a blocking call of
// a thread it strikes fails with EINTR; puts the old action back.
class CInterruptingSignal {
 public:
  CInterruptingSignal() {
    struct sigaction action {};
    action.sa_handler = CountInterruption;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    ::sigaction(SIGUSR1, &action, &m_Old);
  }
  ~CInterruptingSignal() { ::sigaction(SIGUSR1, &m_Old, nullptr); }

 private:
  struct sigaction m_Old {};
};

TEST(FdTest, RetryOnEintrCompletesAReadInterruptedBySignals) {
  CInterruptingSignal signal;
  auto pipe = Pipe();
  std::atomic<int> calls{0};
  char got[8] = {};
  ssize_t result = 0;
  int error = 0;
  std::thread reader([&] {
    result = korvex::RetryOnEintr([&] {
      calls.fetch_add(1);
      return ::read(pipe.m_Read.Get(), got, sizeof(got));
    });
    error = errno;
  });
  // Strike the blocked read until it has been interrupted and made again;
  // only then does the data come. A read that gave up on EINTR would have
  // ended with -1 before anything was written.
  const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (calls.load() < 3 && std::chrono::steady_clock::now() < giveUp) {
    pthread_kill(reader.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_EQ(::write(pipe.m_Write.Get(), "data", 4), 4);
  reader.join();
  EXPECT_GE(calls.load(), 3);
  EXPECT_GE(g_Interruptions.load(), 2);
  EXPECT_EQ(result, 4) << std::strerror(error);
  EXPECT_EQ(std::string(got, 4), "data");
}

TEST(FdTest, RetryMacroRepeatsOnlyWhileTheCallFailsWithEintr) {
  int calls = 0;
  const int result = KORVEX_RETRY((++calls < 4) ? (errno = EINTR, -1) : 7);
  EXPECT_EQ(result, 7);
  EXPECT_EQ(calls, 4);
}

TEST(FdTest, RetryReturnsOtherFailuresOnceWithTheirErrno) {
  int calls = 0;
  char byte = 0;
  const ssize_t result = korvex::RetryOnEintr([&] {
    ++calls;
    return ::read(-1, &byte, 1);
  });
  EXPECT_EQ(result, -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(calls, 1);
}

// errno is looked at only when the call failed: a success that leaves a
// stale EINTR in errno is not made again.
TEST(FdTest, RetryIgnoresAStaleEintrAfterSuccess) {
  int calls = 0;
  const int result = korvex::RetryOnEintr([&] {
    ++calls;
    errno = EINTR;
    return 0;
  });
  EXPECT_EQ(result, 0);
  EXPECT_EQ(calls, 1);
}

// ----- whole-buffer reads and writes ----------------------------------------

TEST(FdTest, WriteAllAndReadExactlyMoveEveryByte) {
  auto pipe = Pipe();
  const std::string text(5000, 'x');
  std::thread writer(
      [&] { EXPECT_TRUE(korvex::WriteAll(pipe.m_Write.Get(), text.data(), text.size())); });
  std::string got(text.size(), '\0');
  EXPECT_TRUE(korvex::ReadExactly(pipe.m_Read.Get(), &got[0], got.size()));
  writer.join();
  EXPECT_EQ(got, text);
}

TEST(FdTest, ReadExactlyFailsAtEndOfFileBeforeTheBufferIsFull) {
  auto pipe = Pipe();
  ASSERT_TRUE(korvex::WriteAll(pipe.m_Write.Get(), "abc", 3));
  pipe.m_Write.Reset();
  char got[4];
  EXPECT_FALSE(korvex::ReadExactly(pipe.m_Read.Get(), got, sizeof(got)));
}

TEST(FdTest, WriteAllFailsWhenNobodyReads) {
  auto pipe = Pipe();
  pipe.m_Read.Reset();
  struct sigaction ignore {};
  struct sigaction old {};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGPIPE, &ignore, &old);
  EXPECT_FALSE(korvex::WriteAll(pipe.m_Write.Get(), "abc", 3));
  EXPECT_EQ(errno, EPIPE);
  ::sigaction(SIGPIPE, &old, nullptr);
}

TEST(FdTest, ReadToEndAppendsUntilEndOfFile) {
  auto pipe = Pipe();
  std::thread writer([&] {
    for (int i = 0; i < 3; ++i) korvex::WriteAll(pipe.m_Write.Get(), "0123456789", 10);
    pipe.m_Write.Reset();
  });
  std::string text = "<";
  EXPECT_EQ(korvex::ReadToEnd(pipe.m_Read.Get(), text, 1000), 0);
  writer.join();
  EXPECT_EQ(text, "<012345678901234567890123456789");
}

// A file larger than the limit is not read whole: the reading stops as soon
// as the text is over the limit, and the caller sees that it is.
TEST(FdTest, ReadToEndStopsOnceOverTheLimit) {
  auto pipe = Pipe();
  const std::string chunk(100, 'y');
  ASSERT_TRUE(korvex::WriteAll(pipe.m_Write.Get(), chunk.data(), chunk.size()));
  std::string text;
  // The write end stays open: reading on after the limit would block.
  EXPECT_EQ(korvex::ReadToEnd(pipe.m_Read.Get(), text, 50), 0);
  EXPECT_GT(text.size(), 50u);
}

TEST(FdTest, ReadToEndReportsTheErrnoOfAFailedRead) {
  std::string text;
  EXPECT_EQ(korvex::ReadToEnd(-1, text, 10), EBADF);
  EXPECT_TRUE(text.empty());
}

}  // namespace
