// The tool log's rotation as the supervisor drives it, with the output cut
// into chunks the way a pipe hands it over: the newest output stays in the
// current log, lines are not split between the two files, and neither file
// outgrows its half by more than a chunk and a line.
#include "host/ToolLog.h"
#include "tests/host/HostTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using halvane::CToolLogCopy;
using hosttest::CTempDir;
using hosttest::Exists;
using hosttest::ReadFile;

constexpr std::size_t kHalf = 1000;

class ToolLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_Dir.Valid());
    m_DirFd = ::open(m_Dir.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(m_DirFd, 0);
  }
  void TearDown() override { ::close(m_DirFd); }

  int OpenLog() const {
    return ::openat(m_DirFd, "tool.log", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
  }
  std::string Current() const { return ReadFile(m_Dir / "tool.log"); }
  std::string Old() const { return ReadFile(m_Dir / "tool.log.1"); }

  CTempDir m_Dir;
  int m_DirFd = -1;
};

// Lines of 50 bytes: "line NNNN " and padding.
std::string Lines(int from, int count) {
  std::string text;
  for (int i = from; i < from + count; ++i) {
    std::string line = "line " + std::to_string(i) + " ";
    line.resize(49, 'x');
    text += line + "\n";
  }
  return text;
}

TEST_F(ToolLogTest, OutputThatEndsExactlyAtTheBoundStaysInTheCurrentLog) {
  // 20 lines of 50 bytes reach the half exactly with the last write: moving
  // the log aside then would leave the current log without the newest line.
  const std::string text = Lines(0, 20);
  ASSERT_EQ(kHalf, text.size());
  {
    CToolLogCopy log(OpenLog(), m_DirFd, "tool.log", "tool.log.1", kHalf, 0);
    log.Write(text.data(), text.size());
  }
  EXPECT_EQ(text, Current());
  EXPECT_FALSE(Exists(m_Dir / "tool.log.1"));
}

TEST_F(ToolLogTest, TheLogIsMovedAsideWithTheNextOutput) {
  const std::string first = Lines(0, 20);
  const std::string next = Lines(20, 1);
  {
    CToolLogCopy log(OpenLog(), m_DirFd, "tool.log", "tool.log.1", kHalf, 0);
    log.Write(first.data(), first.size());
    log.Write(next.data(), next.size());
  }
  EXPECT_EQ(first, Old());
  EXPECT_EQ(next, Current());
}

TEST_F(ToolLogTest, ALineIsNotSplitBetweenTheTwoFiles) {
  // The bound is reached in the middle of line 20; the rest of that line
  // comes in the next chunk together with line 21.
  const std::string text = Lines(0, 22);
  const std::size_t cut = kHalf + 20;
  {
    CToolLogCopy log(OpenLog(), m_DirFd, "tool.log", "tool.log.1", kHalf, 0);
    log.Write(text.data(), cut);
    log.Write(text.data() + cut, text.size() - cut);
  }
  EXPECT_EQ(Lines(0, 21), Old());
  EXPECT_EQ(Lines(21, 1), Current());
}

TEST_F(ToolLogTest, WhatTheLogHeldBeforeCountsTowardsTheBound) {
  // The host's start line is in the log before the tool writes anything.
  const std::string started = "--- started\n";
  hosttest::WriteFile(m_Dir / "tool.log", started);
  // 19 lines reach a half of 960 only together with it.
  const std::string first = Lines(0, 19);
  const std::string next = Lines(19, 1);
  {
    CToolLogCopy log(OpenLog(), m_DirFd, "tool.log", "tool.log.1", 960, started.size());
    log.Write(first.data(), first.size());
    log.Write(next.data(), next.size());
  }
  EXPECT_EQ(started + first, Old());
  EXPECT_EQ(next, Current());
}

TEST_F(ToolLogTest, TheNewLogIsAlwaysAFileOfItsOwn) {
  // The old name already links to the log: the rename is then a no-op and
  // the log's name is still taken when the new log is made. Opening that
  // name again would truncate the file just moved aside.
  const std::string first = Lines(0, 20);
  const std::string next = Lines(20, 1);
  const int fd = OpenLog();
  ASSERT_EQ(0, ::linkat(m_DirFd, "tool.log", m_DirFd, "tool.log.1", 0));
  {
    CToolLogCopy log(fd, m_DirFd, "tool.log", "tool.log.1", kHalf, 0);
    log.Write(first.data(), first.size());
    log.Write(next.data(), next.size());
  }
  EXPECT_EQ(first, Old());
  EXPECT_EQ(next, Current());
  struct stat status {};
  ASSERT_EQ(0, ::stat((m_Dir / "tool.log").c_str(), &status));
  EXPECT_EQ(1u, status.st_nlink);
}

TEST_F(ToolLogTest, ALineWithoutAnEndIsCutAtTwiceTheHalf) {
  const std::string endless(3 * kHalf, 'y');
  {
    CToolLogCopy log(OpenLog(), m_DirFd, "tool.log", "tool.log.1", kHalf, 0);
    for (std::size_t at = 0; at < endless.size(); at += 100) log.Write(endless.data() + at, 100);
  }
  EXPECT_EQ(2 * kHalf, Old().size());
  EXPECT_EQ(kHalf, Current().size());
}

TEST_F(ToolLogTest, WithoutItsDirectoryTheLogIsNeverMovedAside) {
  const std::string text = Lines(0, 60);
  {
    CToolLogCopy log(OpenLog(), -1, "tool.log", "tool.log.1", kHalf, 0);
    log.Write(text.data(), text.size());
  }
  EXPECT_EQ(text, Current());
  EXPECT_FALSE(Exists(m_Dir / "tool.log.1"));
}

TEST_F(ToolLogTest, WithoutALogTheOutputIsDropped) {
  const std::string text = Lines(0, 60);
  CToolLogCopy log(-1, m_DirFd, "tool.log", "tool.log.1", kHalf, 0);
  log.Write(text.data(), text.size());
  EXPECT_FALSE(Exists(m_Dir / "tool.log"));
  EXPECT_FALSE(Exists(m_Dir / "tool.log.1"));
}

TEST_F(ToolLogTest, AnyChunkingKeepsTheNewestOutputAndTheBound) {
  // Chunks of 1 to 4096 bytes, as a pipe read returns them; after every
  // chunk the two files hold the end of the output, whole lines apart from
  // where a chunk cut the last one, and stay within the half plus a chunk
  // plus a line.
  const std::string text = Lines(0, 4000);
  std::mt19937 random(20261123);
  std::uniform_int_distribution<std::size_t> length(1, 4096);
  CToolLogCopy log(OpenLog(), m_DirFd, "tool.log", "tool.log.1", 8 * 1024, 0);
  std::size_t written = 0;
  int rounds = 0;
  while (written < text.size()) {
    const std::size_t chunk = std::min(length(random), text.size() - written);
    log.Write(text.data() + written, chunk);
    written += chunk;
    const std::string old = Old();
    const std::string current = Current();
    ASSERT_FALSE(current.empty()) << "after " << written;
    ASSERT_LE(current.size(), 8 * 1024 + 4096 + 50) << "after " << written;
    ASSERT_LE(old.size(), 8 * 1024 + 4096 + 50) << "after " << written;
    const std::string both = old + current;
    ASSERT_EQ(text.substr(written - both.size(), both.size()), both) << "after " << written;
    if (!old.empty()) {
      ASSERT_EQ('\n', old.back());
      ASSERT_EQ(0u, current.rfind("line ", 0)) << "after " << written;
    }
    ++rounds;
  }
  EXPECT_EQ(text.substr(text.size() - 50), Current().substr(Current().size() - 50));
  EXPECT_GT(rounds, 50);
}

}  // namespace
