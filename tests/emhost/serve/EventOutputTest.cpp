// serve's output stream: what it writes arrives whole and in order, and a
// reader that has stopped reading never holds em-host once a signal is
// pending. Also the waiter's wake-up on room to write, which the stream's
// wait is built on.
#include "host/emhost/serve/EventOutput.h"
#include "host/emhost/serve/Signals.h"
#include "util/Fd.h"
#include "util/Waiter.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

struct CPipe {
  CPipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    m_Read.Reset(fds[0]);
    m_Write.Reset(fds[1]);
  }
  korvex::CFd m_Read;
  korvex::CFd m_Write;
};

// Everything readable from fd until its writer is closed.
std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t got = KORVEX_RETRY(::read(fd, buffer, sizeof(buffer)));
    if (got <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(got));
  }
}

// Fills the pipe's buffer (its write end made non-blocking for that).
void Fill(int fd) {
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
  const std::string block(4096, 'x');
  while (::write(fd, block.data(), block.size()) > 0) {
  }
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

}  // namespace

TEST(EmHostEventOutput, APipeGetsEveryByteInOrder) {
  const int kSignals[] = {SIGUSR2};
  CSignalWatch signals(std::begin(kSignals), std::end(kSignals));
  CPipe pipe;
  std::string expected;
  for (int i = 0; i < 20000; ++i)
    expected += "{\"event\":\"line\",\"n\":" + std::to_string(i) + "}\n";
  std::string received;
  std::thread reader([&] { received = ReadAll(pipe.m_Read.Get()); });
  {
    CEventOutput output(pipe.m_Write.Get(), signals.Fd());
    ASSERT_NE(output.Stream(), nullptr);
    EXPECT_EQ(std::fwrite(expected.data(), 1, expected.size(), output.Stream()), expected.size());
    EXPECT_EQ(std::fflush(output.Stream()), 0);
  }
  pipe.m_Write.Reset();  // the stream wrote through its own copy, now closed
  reader.join();
  EXPECT_EQ(received, expected);
}

TEST(EmHostEventOutput, AStalledReaderIsGivenUpWhenASignalIsPending) {
  const int kSignals[] = {SIGUSR2};
  CSignalWatch signals(std::begin(kSignals), std::end(kSignals));
  CPipe pipe;
  Fill(pipe.m_Write.Get());
  ASSERT_EQ(::raise(SIGUSR2), 0);  // blocked: it stays pending
  {
    CEventOutput output(pipe.m_Write.Get(), signals.Fd());
    ASSERT_NE(output.Stream(), nullptr);
    EXPECT_EQ(output.Write("more", 4), -1);
  }
  EXPECT_EQ(signals.Take(), SIGUSR2);
  EXPECT_EQ(signals.Take(), 0);
}

TEST(EmHostEventOutput, AReaderThatHasGoneFailsTheWrite) {
  const int kSignals[] = {SIGUSR2};
  CSignalWatch signals(std::begin(kSignals), std::end(kSignals));  // SIGPIPE blocked too
  CPipe pipe;
  pipe.m_Read.Reset();
  CEventOutput output(pipe.m_Write.Get(), signals.Fd());
  EXPECT_EQ(output.Write("line\n", 5), -1);
}

TEST(EmHostEventOutput, WaiterWakesForRoomToWriteOnlyWhenThereIsRoom) {
  CPipe pipe;
  const korvex::CWaiter writable(pipe.m_Write.Get(), -1, POLLOUT);
  EXPECT_EQ(writable.WaitFor(std::chrono::milliseconds(0)), korvex::CWaiter::Woken::kWake);
  Fill(pipe.m_Write.Get());
  EXPECT_EQ(writable.WaitFor(std::chrono::milliseconds(20)), korvex::CWaiter::Woken::kDeadline);
  // The default is still readability: the write end never becomes readable.
  const korvex::CWaiter readable(pipe.m_Write.Get(), -1);
  EXPECT_EQ(readable.WaitFor(std::chrono::milliseconds(20)), korvex::CWaiter::Woken::kDeadline);
  // Room again once the reader takes some.
  char buffer[65536];
  ASSERT_GT(::read(pipe.m_Read.Get(), buffer, sizeof(buffer)), 0);
  EXPECT_EQ(writable.WaitFor(std::chrono::milliseconds(0)), korvex::CWaiter::Woken::kWake);
}
