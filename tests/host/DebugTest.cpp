// The stand-alone host's trace facility: level filter, the three sinks,
// verbatim text and whole lines under concurrent Print calls.
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "tests/host/HostTestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using hosttest::CTempDir;
using hosttest::ReadFile;

// Runs print with standard error redirected into a file and returns what
// arrived there.
template <typename F>
std::string CaptureStderr(const CTempDir& dir, F print) {
  const std::string path = dir / "stderr.txt";
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const int saved = ::dup(STDERR_FILENO);
  ::dup2(file, STDERR_FILENO);
  print();
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  ::close(file);
  return ReadFile(path);
}

// What the process started with, taken before the first test runs.
struct CDefaults {
  unsigned int m_Switch = 99;
  unsigned int m_Level = 99;
  std::string m_DebugName;
  std::string m_StderrText;
};
CDefaults g_Defaults;

class CCaptureDefaults : public ::testing::Environment {
 public:
  void SetUp() override {
    g_Defaults.m_Switch = Debug.m_TraceSwitch;
    g_Defaults.m_Level = halvane::TraceLevel();
    g_Defaults.m_DebugName = Debug.m_DebugName;
    CTempDir dir;
    g_Defaults.m_StderrText =
        CaptureStderr(dir, [] { Debug.Print(1, "\nHOST default sink: %d", 42); });
  }
};
[[maybe_unused]] ::testing::Environment* const g_DefaultsEnvironment =
    ::testing::AddGlobalTestEnvironment(new CCaptureDefaults);

class DebugTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::TraceToMemory();
    halvane::SetTraceLevel(5);
    halvane::SetTraceSwitch(true);
  }
  void TearDown() override {
    halvane::TraceToMemory();
    halvane::SetTraceLevel(5);
    halvane::SetTraceSwitch(false);
  }
};

TEST_F(DebugTest, DefaultsAreSwitchOffLevelFiveStderrAndHostName) {
  EXPECT_EQ(0u, g_Defaults.m_Switch);
  EXPECT_EQ(5u, g_Defaults.m_Level);
  EXPECT_EQ("em-host", g_Defaults.m_DebugName);
  EXPECT_EQ("\nHOST default sink: 42", g_Defaults.m_StderrText);
}

TEST_F(DebugTest, CallsAboveTheLevelAreDropped) {
  halvane::SetTraceLevel(3);
  Debug.Print(3, "a%d", 3);
  Debug.Print(4, "b%d", 4);
  Debug.Print(1, "c%d", 1);
  Debug.Print(5, "d%d", 5);
  EXPECT_EQ("a3c1", halvane::TakeTrace());
  halvane::SetTraceLevel(0);
  Debug.Print(1, "x");
  EXPECT_EQ("", halvane::TakeTrace());
  EXPECT_EQ(0u, halvane::TraceLevel());
}

TEST_F(DebugTest, TextIsWrittenVerbatimWithoutPrefixOrLineBreak) {
  Debug.Print(1, "\nEM_KORVEX           : %s %d%% 0x%08X", "value", 5, 0xABCu);
  Debug.Print(2, "\n\nCTaskSerializer     : tail");
  EXPECT_EQ("\nEM_KORVEX           : value 5% 0x00000ABC\n\nCTaskSerializer     : tail",
            halvane::TakeTrace());
}

TEST_F(DebugTest, LongTextIsWrittenWhole) {
  const std::string payload(5000, 'q');
  Debug.Print(1, "\n<%s>", payload.c_str());
  EXPECT_EQ("\n<" + payload + ">", halvane::TakeTrace());
}

TEST_F(DebugTest, TakeTraceClearsTheBuffer) {
  Debug.Print(1, "one");
  EXPECT_EQ("one", halvane::TakeTrace());
  EXPECT_EQ("", halvane::TakeTrace());
  Debug.Print(1, "two");
  EXPECT_EQ("two", halvane::TakeTrace());
}

TEST_F(DebugTest, PrintDoesNotTestTheSwitchTheCallerDoes) {
  halvane::SetTraceSwitch(false);
  EXPECT_EQ(0u, Debug.m_TraceSwitch);
  Debug.Print(1, "made anyway");
  EXPECT_EQ("made anyway", halvane::TakeTrace());
  halvane::SetTraceSwitch(true);
  EXPECT_EQ(1u, Debug.m_TraceSwitch);
}

TEST_F(DebugTest, PrintCallCountIncludesFilteredCalls) {
  halvane::SetTraceLevel(1);
  const unsigned long before = halvane::PrintCallCount();
  Debug.Print(1, "kept");
  Debug.Print(5, "filtered");
  EXPECT_EQ(before + 2, halvane::PrintCallCount());
  EXPECT_EQ("kept", halvane::TakeTrace());
}

TEST_F(DebugTest, SetDebugNameFillsTheNameAndCutsItToTheBuffer) {
  halvane::SetDebugName("HalvaneAgent");
  EXPECT_STREQ("HalvaneAgent", Debug.m_DebugName);
  const std::string longName(100, 'n');
  halvane::SetDebugName(longName.c_str());
  EXPECT_EQ(std::string(63, 'n'), std::string(Debug.m_DebugName));
  halvane::SetDebugName("em-host");
}

TEST_F(DebugTest, FileSinkAppendsToTheFile) {
  CTempDir dir;
  ASSERT_TRUE(dir.Valid());
  const std::string path = dir / "trace.log";
  hosttest::WriteFile(path, "earlier\n");
  std::string error = "untouched";
  ASSERT_TRUE(halvane::TraceToFile(path.c_str(), &error));
  EXPECT_EQ("untouched", error);
  Debug.Print(1, "\nline %d", 1);
  Debug.Print(6, "\nfiltered");
  Debug.Print(2, "\nline %d", 2);
  halvane::TraceToMemory();  // closes the file
  Debug.Print(1, "memory");
  EXPECT_EQ("earlier\n\nline 1\nline 2", ReadFile(path));
  EXPECT_EQ("memory", halvane::TakeTrace());
}

// Each change of sink closes the file it leaves: a host that switches its
// trace file again and again does not run out of descriptors.
TEST_F(DebugTest, FileSinkIsClosedWhenTheSinkChanges) {
  CTempDir dir;
  ASSERT_TRUE(dir.Valid());
  const std::size_t before = hosttest::OpenDescriptorCount();
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(halvane::TraceToFile((dir / "a.log").c_str()));
    ASSERT_TRUE(halvane::TraceToFile((dir / "b.log").c_str()));
    Debug.Print(1, "\nline %d", i);
    halvane::TraceToStderr();
    ASSERT_TRUE(halvane::TraceToFile((dir / "a.log").c_str()));
    halvane::TraceToMemory();
  }
  EXPECT_EQ(before, hosttest::OpenDescriptorCount());
  EXPECT_EQ(std::string(), ReadFile(dir / "a.log"));
  EXPECT_EQ("\nline 0\nline 1\nline 2\nline 3\nline 4\nline 5\nline 6\nline 7\nline 8\nline 9",
            ReadFile(dir / "b.log"));
}

TEST_F(DebugTest, FileSinkThatCannotBeOpenedNamesThePath) {
  CTempDir dir;
  ASSERT_TRUE(dir.Valid());
  const std::string path = dir / "missing/trace.log";
  std::string error;
  EXPECT_FALSE(halvane::TraceToFile(path.c_str(), &error));
  EXPECT_EQ(path + ": cannot open trace file: No such file or directory", error);
  EXPECT_FALSE(halvane::TraceToFile(nullptr, &error));
  EXPECT_EQ("trace file: no path given", error);
  // The sink stays as it was.
  Debug.Print(1, "still memory");
  EXPECT_EQ("still memory", halvane::TakeTrace());
}

TEST_F(DebugTest, StderrSinkWritesTheTextAsIs) {
  CTempDir dir;
  ASSERT_TRUE(dir.Valid());
  halvane::TraceToStderr();
  const std::string text = CaptureStderr(dir, [] {
    Debug.Print(1, "\nEM_KORVEX           : %s", "to stderr");
    Debug.Print(9, "\nfiltered");
  });
  EXPECT_EQ("\nEM_KORVEX           : to stderr", text);
  EXPECT_EQ("", halvane::TakeTrace());
}

// Four threads print lines of different lengths (small and larger than the
// formatting buffer on the stack). Every line must come out whole: parsing
// the output back must give each thread's lines complete and in order.
void ExpectWholeLines(const std::string& trace, int threads, int lines) {
  std::map<int, int> next;
  std::size_t position = 0;
  int parsed = 0;
  while (position < trace.size()) {
    ASSERT_EQ('\n', trace[position]) << "at " << position;
    const std::size_t end = trace.find('\n', position + 1);
    const std::string line =
        trace.substr(position + 1, (end == std::string::npos ? trace.size() : end) - position - 1);
    position = end == std::string::npos ? trace.size() : end;
    int thread = -1;
    int number = -1;
    int length = -1;
    ASSERT_EQ(3, std::sscanf(line.c_str(), "T%d L%d N%d ", &thread, &number, &length)) << line;
    const std::string header = "T" + std::to_string(thread) + " L" + std::to_string(number) + " N" +
                               std::to_string(length) + " ";
    ASSERT_EQ(header + std::string(static_cast<std::size_t>(length), static_cast<char>('a' + thread)),
              line);
    ASSERT_EQ(next[thread], number) << "thread " << thread;
    next[thread] = number + 1;
    ++parsed;
  }
  EXPECT_EQ(threads * lines, parsed);
}

void PrintLines(int threads, int lines) {
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([t, lines] {
      for (int i = 0; i < lines; ++i) {
        const int length = (i % 3 == 0) ? 1500 : 20 + i % 50;
        const std::string fill(static_cast<std::size_t>(length), static_cast<char>('a' + t));
        Debug.Print(1, "\nT%d L%d N%d %s", t, i, length, fill.c_str());
      }
    });
  }
  for (auto& worker : workers) worker.join();
}

TEST_F(DebugTest, FourThreadsNeverInterleaveInMemory) {
  PrintLines(4, 400);
  ExpectWholeLines(halvane::TakeTrace(), 4, 400);
}

TEST_F(DebugTest, FourThreadsNeverInterleaveInAFile) {
  CTempDir dir;
  ASSERT_TRUE(dir.Valid());
  const std::string path = dir / "trace.log";
  ASSERT_TRUE(halvane::TraceToFile(path.c_str()));
  PrintLines(4, 400);
  halvane::TraceToMemory();
  ExpectWholeLines(ReadFile(path), 4, 400);
}

}  // namespace
