// ExecuteCmd owns the whole process tree of its command: fake tools that
// behave like real collectors (a child under timeout, a setsid child, a
// background grandchild, a TERM trap that removes a scratch directory), the
// graceful end with SIGTERM before SIGKILL, the tool's status and output,
// the rule for tools run as root, and FindProcess's view of them.
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "tests/host/HostTestSupport.h"
#include "tests/support/CollectorTool.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <future>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

using halvane::CToolRun;
using hosttest::CTempDir;
using hosttest::Exists;
using hosttest::LoadPid;
using hosttest::ReadFile;
using hosttest::WaitUntil;
using hosttest::WriteScript;

// The ids of running processes whose command line holds marker.
std::vector<int> ProcessesWith(const std::string& marker) {
  std::vector<int> found;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return found;
  while (const dirent* entry = ::readdir(proc)) {
    const std::string name = entry->d_name;
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    const int pid = std::stoi(name);
    if (pid == ::getpid()) continue;
    std::string commandLine = ReadFile("/proc/" + name + "/cmdline");
    for (char& c : commandLine) {
      if (c == '\0') c = ' ';
    }
    if (commandLine.find(marker) != std::string::npos && hosttest::ProcessRuns(pid)) {
      found.push_back(pid);
    }
  }
  ::closedir(proc);
  return found;
}

class ProcessTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_Dir.Valid());
    // Unique per test: every sleeper of the tree carries it on its command
    // line, which is how the test finds the tree in /proc.
    static int counter = 0;
    m_Marker = std::to_string(7000000 + (::getpid() % 1000) * 100 + counter++);
    m_Scratch = m_Dir / "scratch";
    m_Ready = m_Dir / "ready";
    halvane::SetToolLog(m_Dir / "tool.log", 64 * 1024);
  }
  void TearDown() override { halvane::SetToolLog(""); }

  // A collector: scratch files removed by its TERM trap, a child under
  // timeout (a process group of its own), a child in a new session, a
  // grandchild reparented away from it, and a sleeper it waits for.
  std::string CollectorBody() const {
    return korvex_test::CollectorBody(m_Scratch, m_Ready, m_Marker);
  }

  struct CBackground {
    unsigned int m_Pid = 0;
    unsigned int m_Code = 0xC0FFEEu;
    std::future<bool> m_Result;
    // A test that stopped early still ends its tool: the future's
    // destructor would wait for the whole run.
    ~CBackground() {
      if (!m_Result.valid()) return;
      while (m_Result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
        const unsigned int pid = __atomic_load_n(&m_Pid, __ATOMIC_ACQUIRE);
        if (pid != 0) CProcess::TerminateProcess(pid, 1);
      }
    }
  };
  void Start(CBackground& run, const std::string& path) {
    run.m_Result = std::async(std::launch::async, [&run, path] {
      return CProcess::ExecuteCmd(path.c_str(), run.m_Pid, run.m_Code, nullptr, false);
    });
  }
  bool TreeGone() const { return ProcessesWith(m_Marker).empty(); }
  // Ready and all four sleepers (plus timeout's and setsid's parents) run.
  // (The tool runs - and may say so - a moment before ExecuteCmd has
  // published the id.)
  bool TreeUp(const CBackground& run) const {
    return __atomic_load_n(&run.m_Pid, __ATOMIC_ACQUIRE) != 0 && Exists(m_Ready) &&
           ProcessesWith(m_Marker).size() >= 4;
  }
  bool Published(const CBackground& run) const {
    return __atomic_load_n(&run.m_Pid, __ATOMIC_ACQUIRE) != 0 && Exists(m_Ready);
  }

  CTempDir m_Dir;
  std::string m_Marker;
  std::string m_Scratch;
  std::string m_Ready;
};

TEST_F(ProcessTreeTest, TerminateEndsTheWholeTreeGracefully) {
  WriteScript(m_Dir / "Korvex", CollectorBody());
  CBackground run;
  Start(run, m_Dir / "Korvex");
  ASSERT_TRUE(WaitUntil([&] { return TreeUp(run); }, std::chrono::seconds(10)));
  ASSERT_TRUE(Exists(m_Scratch));
  ASSERT_TRUE(CProcess::TerminateProcess(LoadPid(run.m_Pid), 1));
  ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(run.m_Result.get());
  EXPECT_EQ(1u, run.m_Code);  // what TerminateProcess asked for
  // ExecuteCmd returns only once the tree is gone, and the trap ran.
  EXPECT_TRUE(TreeGone());
  EXPECT_FALSE(Exists(m_Scratch));
  const CToolRun last = halvane::LastToolRun();
  EXPECT_EQ(CToolRun::Result::kTerminated, last.m_Result);
  EXPECT_EQ(1, last.m_Code);
}

TEST_F(ProcessTreeTest, WaitForExitAfterTerminateSeesTheCodeWithinTheStopWait) {
  WriteScript(m_Dir / "Korvex", CollectorBody());
  CBackground run;
  Start(run, m_Dir / "Korvex");
  ASSERT_TRUE(WaitUntil([&] { return TreeUp(run); }, std::chrono::seconds(10)));
  const unsigned int pid = LoadPid(run.m_Pid);
  ASSERT_TRUE(CProcess::TerminateProcess(pid, 1));
  unsigned int code = 0;
  // Generous bound: the grace period (1500 ms) ends well within it.
  EXPECT_TRUE(CProcess::WaitForExit(pid, code, 20000));
  EXPECT_EQ(1u, code);
  EXPECT_TRUE(run.m_Result.get());
  EXPECT_TRUE(TreeGone());
}

TEST_F(ProcessTreeTest, AToolThatIgnoresTermIsKilledAfterTheGracePeriod) {
  WriteScript(m_Dir / "Korvex", "trap '' TERM\nsh -c 'trap \"\" TERM; sleep " + m_Marker +
                                    "' &\ntouch '" + m_Ready + "'\nwhile :; do sleep " + m_Marker +
                                    "; done");
  CBackground run;
  Start(run, m_Dir / "Korvex");
  ASSERT_TRUE(WaitUntil([&] { return Exists(m_Ready) && ProcessesWith(m_Marker).size() >= 2; },
                        std::chrono::seconds(10)));
  ASSERT_TRUE(CProcess::TerminateProcess(LoadPid(run.m_Pid), 1));
  ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(run.m_Result.get());
  EXPECT_EQ(1u, run.m_Code);
  EXPECT_TRUE(TreeGone());
}

TEST_F(ProcessTreeTest, WhatAToolLeavesBehindEndsWithIt) {
  // The tool exits at once; its daemon (new session, reparented) must not
  // outlive the run, and its own exit code comes through unchanged.
  WriteScript(m_Dir / "Korvex",
              "setsid sh -c 'sleep " + m_Marker + "' &\n( sleep " + m_Marker + " & )\nexit 4");
  CBackground run;
  Start(run, m_Dir / "Korvex");
  ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(run.m_Result.get());
  EXPECT_EQ(4u, run.m_Code);
  EXPECT_TRUE(TreeGone());
  const CToolRun last = halvane::LastToolRun();
  EXPECT_EQ(CToolRun::Result::kExited, last.m_Result);
  EXPECT_EQ(4, last.m_Code);
}

TEST_F(ProcessTreeTest, AToolKilledByASignalIsReportedSo) {
  WriteScript(m_Dir / "Korvex", "kill -KILL $$");
  unsigned int pid = 0;
  unsigned int code = 0;
  ASSERT_TRUE(CProcess::ExecuteCmd((m_Dir / "Korvex").c_str(), pid, code, nullptr, false));
  EXPECT_EQ(128u + SIGKILL, code);
  const CToolRun last = halvane::LastToolRun();
  EXPECT_EQ(CToolRun::Result::kSignaled, last.m_Result);
  EXPECT_EQ(SIGKILL, last.m_Code);
}

TEST_F(ProcessTreeTest, TheToolReadsNothingAndWritesOnlyToTheLog) {
  // stdin is /dev/null: read ends at once (a tool that read the host's
  // input would block here or swallow it).
  WriteScript(m_Dir / "Korvex",
              "if read line; then echo \"got: $line\"; else echo 'no input'; fi\n"
              "echo '{\"event\":\"reply\"}'\necho to-stderr >&2\nexit 0");
  unsigned int pid = 0;
  unsigned int code = 7;
  ASSERT_TRUE(CProcess::ExecuteCmd((m_Dir / "Korvex").c_str(), pid, code, nullptr, false));
  EXPECT_EQ(0u, code);
  const std::string log = ReadFile(m_Dir / "tool.log");
  EXPECT_NE(std::string::npos, log.find("\nno input\n{\"event\":\"reply\"}\nto-stderr\n")) << log;
  EXPECT_NE(std::string::npos, log.find(" ended: exit code 0\n")) << log;
  EXPECT_EQ(m_Dir / "tool.log", halvane::LastToolRun().m_LogPath);
}

TEST_F(ProcessTreeTest, TheLogStaysWithinItsBound) {
  halvane::SetToolLog(m_Dir / "tool.log", 16 * 1024);
  // About 200 KiB of output.
  WriteScript(
      m_Dir / "Korvex",
      "i=0\nwhile [ $i -lt 2000 ]; do echo \"line $i 0123456789012345678901234567890123456789"
      "01234567890123456789\"; i=$((i+1)); done\nexit 0");
  unsigned int pid = 0;
  unsigned int code = 7;
  ASSERT_TRUE(CProcess::ExecuteCmd((m_Dir / "Korvex").c_str(), pid, code, nullptr, false));
  struct stat current {};
  struct stat old {};
  ASSERT_EQ(0, ::stat((m_Dir / "tool.log").c_str(), &current));
  ASSERT_EQ(0, ::stat((m_Dir / "tool.log.1").c_str(), &old));
  // Each file at most the half bound plus one read's worth (4 KiB), the
  // rest of a line (80 bytes) and the host's start or end line.
  EXPECT_LE(current.st_size, 8 * 1024 + 4096 + 80 + 512);
  EXPECT_LE(old.st_size, 8 * 1024 + 4096 + 80 + 512);
  // The newest output is in the current log, however the pipe cut it up,
  // and the old one ends with a whole line.
  EXPECT_NE(std::string::npos, ReadFile(m_Dir / "tool.log").find("line 1999 "));
  EXPECT_EQ('\n', ReadFile(m_Dir / "tool.log.1").back());
}

TEST_F(ProcessTreeTest, ALogThatIsALinkIsNotFollowed) {
  const std::string target = m_Dir / "elsewhere";
  hosttest::WriteFile(target, "keep\n");
  ASSERT_EQ(0, ::symlink(target.c_str(), (m_Dir / "tool.log").c_str()));
  WriteScript(m_Dir / "Korvex", "echo secret\nexit 0");
  unsigned int pid = 0;
  unsigned int code = 7;
  ASSERT_TRUE(CProcess::ExecuteCmd((m_Dir / "Korvex").c_str(), pid, code, nullptr, false));
  EXPECT_EQ("keep\n", ReadFile(target));
  const CToolRun last = halvane::LastToolRun();
  EXPECT_TRUE(last.m_LogPath.empty());
  EXPECT_FALSE(last.m_LogProblem.empty());
}

TEST_F(ProcessTreeTest, TheEndLineIsNotWrittenThroughAnotherNameOfAFile) {
  // The host writes its end line by the log's name; a tool (or anyone who
  // may write the directory) put a second name of another file there.
  const std::string target = m_Dir / "elsewhere";
  hosttest::WriteFile(target, "keep\n");
  WriteScript(m_Dir / "Korvex", "rm -f '" + (m_Dir / "tool.log") + "'\nln '" + target + "' '" +
                                    (m_Dir / "tool.log") + "'\nexit 0");
  unsigned int pid = 0;
  unsigned int code = 7;
  ASSERT_TRUE(CProcess::ExecuteCmd((m_Dir / "Korvex").c_str(), pid, code, nullptr, false));
  EXPECT_EQ(0u, code);
  EXPECT_EQ("keep\n", ReadFile(target));
}

TEST_F(ProcessTreeTest, StartFailuresSayWhy) {
  unsigned int pid = 0;
  unsigned int code = 0;
  EXPECT_FALSE(CProcess::ExecuteCmd((m_Dir / "missing").c_str(), pid, code, nullptr, false));
  EXPECT_EQ(CToolRun::Result::kNotFound, halvane::LastToolRun().m_Result);

  hosttest::WriteFile(m_Dir / "noexec", "#!/bin/sh\nexit 0\n", 0644);
  EXPECT_FALSE(CProcess::ExecuteCmd((m_Dir / "noexec").c_str(), pid, code, nullptr, false));
  // No execute bit: exec refuses it, root included.
  EXPECT_EQ(CToolRun::Result::kNotExecutable, halvane::LastToolRun().m_Result);
  hosttest::WriteFile(m_Dir / "garbage",
                      "\x7f"
                      "ELF-not-really",
                      0755);
  EXPECT_FALSE(CProcess::ExecuteCmd((m_Dir / "garbage").c_str(), pid, code, nullptr, false));
  EXPECT_EQ(CToolRun::Result::kNotExecutable, halvane::LastToolRun().m_Result);
}

class ProcessTreeRootTest : public ProcessTreeTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the ownership rule applies to root only";
    ProcessTreeTest::SetUp();
  }
  void ExpectRefused(const std::string& path, const std::string& words) {
    unsigned int pid = 0;
    unsigned int code = 0;
    EXPECT_FALSE(CProcess::ExecuteCmd(path.c_str(), pid, code, nullptr, false));
    const CToolRun last = halvane::LastToolRun();
    EXPECT_EQ(CToolRun::Result::kRefused, last.m_Result);
    EXPECT_NE(std::string::npos, last.m_Why.find(words)) << last.m_Why;
    EXPECT_FALSE(Exists(m_Dir / "ran"));
  }
};

TEST_F(ProcessTreeRootTest, AGroupWritableToolIsRefused) {
  WriteScript(m_Dir / "Korvex", "touch '" + (m_Dir / "ran") + "'");
  ASSERT_EQ(0, ::chmod((m_Dir / "Korvex").c_str(), 0775));
  ExpectRefused(m_Dir / "Korvex", "is writable by group or others (mode 0775)");
  ASSERT_EQ(0, ::chmod((m_Dir / "Korvex").c_str(), 0757));
  ExpectRefused(m_Dir / "Korvex", "is writable by group or others (mode 0757)");
}

TEST_F(ProcessTreeRootTest, AToolOfAnotherUserIsRefused) {
  WriteScript(m_Dir / "Korvex", "touch '" + (m_Dir / "ran") + "'");
  ASSERT_EQ(0, ::chown((m_Dir / "Korvex").c_str(), 65534, 65534));
  ExpectRefused(m_Dir / "Korvex", "belongs to ");
}

TEST_F(ProcessTreeRootTest, AToolInADirectoryOthersCanWriteIsRefused) {
  const std::string open = m_Dir / "open";
  ASSERT_EQ(0, ::mkdir(open.c_str(), 0777));
  ASSERT_EQ(0, ::chmod(open.c_str(), 0777));
  WriteScript(open + "/Korvex", "touch '" + (m_Dir / "ran") + "'");
  ExpectRefused(open + "/Korvex", "its directory " + open + " is writable by group or others");
}

TEST_F(ProcessTreeRootTest, TheEndLineIsNotWrittenIntoAnotherUsersFileInTheLogsPlace) {
  const std::string log = m_Dir / "tool.log";
  WriteScript(m_Dir / "Korvex",
              "rm -f '" + log + "'\n: > '" + log + "'\nchown 65534 '" + log + "'\nexit 0");
  unsigned int pid = 0;
  unsigned int code = 7;
  ASSERT_TRUE(CProcess::ExecuteCmd((m_Dir / "Korvex").c_str(), pid, code, nullptr, false));
  EXPECT_EQ(0u, code);
  struct stat status {};
  ASSERT_EQ(0, ::stat(log.c_str(), &status));
  EXPECT_EQ(65534u, status.st_uid);
  EXPECT_EQ("", ReadFile(log));
}

TEST_F(ProcessTreeTest, FindProcessSeesTheRunningTool) {
  WriteScript(m_Dir / "Korvex", "touch '" + m_Ready + "'\nsleep " + m_Marker);
  CBackground run;
  Start(run, m_Dir / "Korvex");
  ASSERT_TRUE(WaitUntil([&] { return Published(run); }, std::chrono::seconds(10)));
  unsigned int found = 0;
  EXPECT_TRUE(CProcess::FindProcess(found, "Korvex"));
  // The tool itself, not its supervisor: that one has a name of its own.
  std::string comm = ReadFile("/proc/" + std::to_string(found) + "/comm");
  EXPECT_EQ("Korvex\n", comm);
  EXPECT_NE(LoadPid(run.m_Pid), found);
  EXPECT_EQ("em-supervisor\n", ReadFile("/proc/" + std::to_string(LoadPid(run.m_Pid)) + "/comm"));
  ASSERT_TRUE(CProcess::TerminateProcess(LoadPid(run.m_Pid), 1));
  EXPECT_TRUE(run.m_Result.get());
}

TEST_F(ProcessTreeTest, FindProcessIgnoresAnotherUnprivilegedUsersProcess) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start a process as another user";
  const std::string copy = m_Dir / "Korvex";
  ASSERT_EQ(0, std::system(("cp /bin/sleep '" + copy + "' && chmod 755 '" + copy +
                            "' && chmod 755 '" + m_Dir.Path() + "'")
                               .c_str()));
  const pid_t other = ::fork();
  ASSERT_GE(other, 0);
  if (other == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(126);
    ::execl(copy.c_str(), copy.c_str(), m_Marker.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ASSERT_TRUE(WaitUntil(
      [&] { return ReadFile("/proc/" + std::to_string(other) + "/comm") == "Korvex\n"; }));
  unsigned int found = 0;
  EXPECT_FALSE(CProcess::FindProcess(found, "Korvex")) << "found pid " << found;
  ::kill(other, SIGKILL);
  int status = 0;
  ::waitpid(other, &status, 0);
}

}  // namespace
