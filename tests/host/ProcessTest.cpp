// The stand-alone host's child processes: ExecuteCmd with real children
// (fake tools are shell scripts written into a private temp directory),
// exit codes, termination of a long run, stale ids, WaitForExit beside
// ExecuteCmd.
#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "tests/host/HostTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <future>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using hosttest::CTempDir;
using hosttest::LoadPid;
using hosttest::ProcessRuns;
using hosttest::ReadFile;
using hosttest::WaitUntil;
using hosttest::WriteScript;

constexpr unsigned int kUntouched = 0xC0FFEEu;

class ProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_Dir.Valid()); }

  struct CRun {
    bool m_Started = false;
    unsigned int m_ProcessId = kUntouched;
    unsigned int m_ExitCode = kUntouched;
  };

  static CRun Run(const std::string& command, const char* workingDir = nullptr) {
    CRun run;
    run.m_Started =
        CProcess::ExecuteCmd(command.c_str(), run.m_ProcessId, run.m_ExitCode, workingDir, false);
    return run;
  }

  // ExecuteCmd on its own thread; the pid becomes visible in m_ProcessId.
  struct CBackgroundRun {
    unsigned int m_ProcessId = 0;
    unsigned int m_ExitCode = kUntouched;
    std::future<bool> m_Result;
    std::chrono::steady_clock::time_point m_Returned;
  };

  static void StartInBackground(CBackgroundRun& run, const std::string& command) {
    run.m_Result = std::async(std::launch::async, [&run, command] {
      const bool started =
          CProcess::ExecuteCmd(command.c_str(), run.m_ProcessId, run.m_ExitCode, nullptr, false);
      run.m_Returned = std::chrono::steady_clock::now();
      return started;
    });
  }

  CTempDir m_Dir;
};

TEST_F(ProcessTest, ExitCodeZeroIsReported) {
  WriteScript(m_Dir / "ok", "exit 0");
  const CRun run = Run(m_Dir / "ok");
  EXPECT_TRUE(run.m_Started);
  EXPECT_EQ(0u, run.m_ExitCode);
  EXPECT_NE(kUntouched, run.m_ProcessId);
  EXPECT_NE(0u, run.m_ProcessId);
}

TEST_F(ProcessTest, ExitCodeSevenIsReported) {
  WriteScript(m_Dir / "seven", "exit 7");
  const CRun run = Run(m_Dir / "seven");
  EXPECT_TRUE(run.m_Started);
  EXPECT_EQ(7u, run.m_ExitCode);
}

TEST_F(ProcessTest, ExitCode255IsReported) {
  WriteScript(m_Dir / "max", "exit 255");
  EXPECT_EQ(255u, Run(m_Dir / "max").m_ExitCode);
}

TEST_F(ProcessTest, DeathBySignalIsReportedAs128PlusTheSignal) {
  WriteScript(m_Dir / "term", "kill -TERM $$\nexit 3");
  WriteScript(m_Dir / "kill", "kill -KILL $$\nexit 3");
  const CRun term = Run(m_Dir / "term");
  EXPECT_TRUE(term.m_Started);
  EXPECT_EQ(128u + SIGTERM, term.m_ExitCode);
  const CRun killed = Run(m_Dir / "kill");
  EXPECT_TRUE(killed.m_Started);
  EXPECT_EQ(128u + SIGKILL, killed.m_ExitCode);
}

// The child must not inherit the caller's blocked or ignored signals: a
// tool started from a thread that blocks or ignores SIGTERM still dies of
// it. (A shell started with SIGTERM ignored could not even undo that.)
TEST_F(ProcessTest, ChildStartsWithDefaultSignalsAndEmptyMask) {
  WriteScript(m_Dir / "term", "kill -TERM $$\nexit 3");
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  struct sigaction previous {};
  ASSERT_EQ(0, sigaction(SIGTERM, &ignore, &previous));
  sigset_t block;
  sigemptyset(&block);
  sigaddset(&block, SIGTERM);
  sigaddset(&block, SIGINT);
  sigset_t oldMask;
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &block, &oldMask));
  const CRun run = Run(m_Dir / "term");
  pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
  sigaction(SIGTERM, &previous, nullptr);
  EXPECT_TRUE(run.m_Started);
  EXPECT_EQ(128u + SIGTERM, run.m_ExitCode);
}

TEST_F(ProcessTest, ChildRunsInASessionOfItsOwn) {
  const std::string out = m_Dir / "ids";
  // Read pid, pgid and session from /proc/self (the shell's own entry, as
  // this host's /proc numbers it) to depend on no tool.
  WriteScript(m_Dir / "ids", "read -r line < /proc/self/stat\nset -- $line\necho \"$1 $5 $6\" > '" +
                                 out + ".txt'");
  const CRun run = Run(m_Dir / "ids");
  ASSERT_TRUE(run.m_Started);
  ASSERT_EQ(0u, run.m_ExitCode);
  std::istringstream ids(ReadFile(out + ".txt"));
  long pid = 0, group = 0, session = 0;
  ASSERT_TRUE(ids >> pid >> group >> session);
  // Leader of its own group and session: no keyboard signal or hang-up of
  // the host's terminal reaches it directly.
  EXPECT_EQ(pid, group);
  EXPECT_EQ(pid, session);
  EXPECT_NE(static_cast<pid_t>(group), getpgrp());
  EXPECT_NE(static_cast<pid_t>(session), getsid(0));
}

TEST_F(ProcessTest, WorkingDirectoryIsApplied) {
  const std::string sub = m_Dir / "work";
  ASSERT_EQ(0, ::mkdir(sub.c_str(), 0755));
  WriteScript(m_Dir / "where", "pwd > where.txt");
  const CRun run = Run(m_Dir / "where", sub.c_str());
  ASSERT_TRUE(run.m_Started);
  EXPECT_EQ(sub + "\n", ReadFile(sub + "/where.txt"));
}

// No shell, no word splitting: a path with blanks and ';' runs exactly that
// file, and neither the file named by its first word nor the "command"
// after the ';'.
TEST_F(ProcessTest, PathWithBlanksAndSemicolonRunsExactlyThatFile) {
  const std::string folder = m_Dir / "with space";
  ASSERT_EQ(0, ::mkdir(folder.c_str(), 0755));
  const std::string right = m_Dir / "right.txt";
  const std::string wrong = m_Dir / "wrong.txt";
  WriteScript(folder + "/tool", "echo wrong > '" + wrong + "'");
  WriteScript(folder + "/tool; touch INJECTED", "echo right > '" + right + "'");
  WriteScript(m_Dir / "with", "echo wrong > '" + wrong + "'");
  const CRun run = Run(folder + "/tool; touch INJECTED", m_Dir.Path().c_str());
  EXPECT_TRUE(run.m_Started);
  EXPECT_EQ(0u, run.m_ExitCode);
  EXPECT_EQ("right\n", ReadFile(right));
  EXPECT_FALSE(hosttest::Exists(wrong));
  EXPECT_FALSE(hosttest::Exists(m_Dir / "INJECTED"));
  EXPECT_FALSE(hosttest::Exists(folder + "/INJECTED"));
}

TEST_F(ProcessTest, ArgumentsInTheCommandLineAreNotSplitOff) {
  WriteScript(m_Dir / "tool", "exit 0");
  const CRun run = Run(m_Dir / "tool --help");
  EXPECT_FALSE(run.m_Started);  // there is no file "tool --help"
  EXPECT_EQ(kUntouched, run.m_ProcessId);
}

TEST_F(ProcessTest, MissingCommandReturnsFalse) {
  const CRun run = Run(m_Dir / "missing");
  EXPECT_FALSE(run.m_Started);
  EXPECT_EQ(kUntouched, run.m_ProcessId);
  EXPECT_EQ(kUntouched, run.m_ExitCode);
}

TEST_F(ProcessTest, NonExecutableCommandReturnsFalse) {
  hosttest::WriteFile(m_Dir / "plain", "#!/bin/sh\nexit 0\n", 0644);
  const CRun run = Run(m_Dir / "plain");
  EXPECT_FALSE(run.m_Started);
  EXPECT_EQ(kUntouched, run.m_ProcessId);
  EXPECT_EQ(kUntouched, run.m_ExitCode);
}

TEST_F(ProcessTest, DirectoryAsCommandReturnsFalse) {
  const std::string folder = m_Dir / "folder";
  ASSERT_EQ(0, ::mkdir(folder.c_str(), 0755));
  const CRun run = Run(folder);
  EXPECT_FALSE(run.m_Started);
  EXPECT_EQ(kUntouched, run.m_ProcessId);
}

TEST_F(ProcessTest, ExecutableWithoutInterpreterLineReturnsFalse) {
  hosttest::WriteFile(m_Dir / "noshebang", "exit 0\n", 0755);
  const CRun run = Run(m_Dir / "noshebang");
  EXPECT_FALSE(run.m_Started);  // not run through a shell behind our back
  EXPECT_EQ(kUntouched, run.m_ProcessId);
}

TEST_F(ProcessTest, EmptyOrNullCommandReturnsFalse) {
  EXPECT_FALSE(Run("").m_Started);
  unsigned int pid = kUntouched;
  unsigned int code = kUntouched;
  EXPECT_FALSE(CProcess::ExecuteCmd(nullptr, pid, code, nullptr, false));
  EXPECT_EQ(kUntouched, pid);
  EXPECT_EQ(kUntouched, code);
}

TEST_F(ProcessTest, ProcessIdIsVisibleWhileTheChildRuns) {
  const std::string flag = m_Dir / "go";
  WriteScript(m_Dir / "waiter", "while [ ! -e '" + flag + "' ]; do sleep 0.02; done\nexit 5");
  CBackgroundRun run;
  StartInBackground(run, m_Dir / "waiter");
  ASSERT_TRUE(WaitUntil([&] { return LoadPid(run.m_ProcessId) != 0; }));
  const unsigned int pid = LoadPid(run.m_ProcessId);
  EXPECT_TRUE(ProcessRuns(static_cast<int>(pid)));
  EXPECT_EQ(std::future_status::timeout, run.m_Result.wait_for(std::chrono::milliseconds(0)));
  hosttest::WriteFile(flag, "");
  ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(run.m_Result.get());
  EXPECT_EQ(5u, run.m_ExitCode);
  EXPECT_EQ(pid, run.m_ProcessId);  // left as it was; the caller clears it
}

// The module's shutdown path: a tool that would run for a minute is
// terminated with code 1 and ExecuteCmd reports exactly that. The issue
// asks for about 100 ms; that figure is a benchmark on an idle machine, so
// the test only bounds it generously (2 s, for loaded sanitizer runs) and
// prints what it measured.
TEST_F(ProcessTest, TerminatedSleeperIsReportedWithTheGivenCodePromptly) {
  WriteScript(m_Dir / "sleeper", "exec sleep 60");
  CBackgroundRun run;
  StartInBackground(run, m_Dir / "sleeper");
  ASSERT_TRUE(WaitUntil([&] { return LoadPid(run.m_ProcessId) != 0; }));
  const unsigned int pid = LoadPid(run.m_ProcessId);
  ASSERT_TRUE(WaitUntil([&] { return ProcessRuns(static_cast<int>(pid)); }));

  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(CProcess::TerminateProcess(pid, 1));
  ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(run.m_Result.get());
  const auto latency =
      std::chrono::duration_cast<std::chrono::microseconds>(run.m_Returned - start).count();
  std::printf("[ latency  ] TerminateProcess -> ExecuteCmd returned: %.3f ms\n", latency / 1000.0);
  EXPECT_EQ(1u, run.m_ExitCode);
  EXPECT_LT(latency, 2000000);
}

TEST_F(ProcessTest, TerminationEndsTheWholeProcessGroup) {
  const std::string grandchild = m_Dir / "grandchild.pid";
  // The sleeper's id as this host numbers it comes from /proc/self of a
  // shell it execs into (the tool may see other numbers in a namespace).
  WriteScript(m_Dir / "parent",
              "sh -c 'read -r line < /proc/self/stat; set -- $line; echo $1 > \"" + grandchild +
                  ".tmp\"; exec sleep 60' &\n"
                  "while [ ! -s '" +
                  grandchild + ".tmp' ]; do sleep 0.01; done\nmv '" + grandchild + ".tmp' '" +
                  grandchild + "'\nwait");
  CBackgroundRun run;
  StartInBackground(run, m_Dir / "parent");
  ASSERT_TRUE(WaitUntil([&] { return hosttest::Exists(grandchild); }));
  const int sleeper = std::stoi(ReadFile(grandchild));
  ASSERT_TRUE(WaitUntil([&] { return ProcessRuns(sleeper); }));
  ASSERT_TRUE(WaitUntil([&] { return LoadPid(run.m_ProcessId) != 0; }));
  const unsigned int pid = LoadPid(run.m_ProcessId);
  EXPECT_TRUE(CProcess::TerminateProcess(pid, 9));
  ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(run.m_Result.get());
  EXPECT_EQ(9u, run.m_ExitCode);
  // The grandchild got the SIGKILL too (gone, or a zombie waiting for init).
  EXPECT_TRUE(WaitUntil([&] { return !ProcessRuns(sleeper); }));
}

TEST_F(ProcessTest, StaleIdOfAReapedChildIsRefused) {
  WriteScript(m_Dir / "ok", "exit 0");
  const CRun run = Run(m_Dir / "ok");
  ASSERT_TRUE(run.m_Started);
  EXPECT_FALSE(CProcess::TerminateProcess(run.m_ProcessId, 1));
  // Its code is still known to a late waiter.
  unsigned int code = kUntouched;
  EXPECT_TRUE(CProcess::WaitForExit(run.m_ProcessId, code, 0));
  EXPECT_EQ(0u, code);
}

// A process that is not our child is never signalled, even though we could.
TEST_F(ProcessTest, ProcessThatIsNotOursIsRefusedAndLeftAlone) {
  const pid_t foreign = ::fork();
  ASSERT_GE(foreign, 0);
  if (foreign == 0) {
    ::pause();
    ::_exit(0);
  }
  EXPECT_FALSE(CProcess::TerminateProcess(static_cast<unsigned int>(foreign), 1));
  unsigned int code = kUntouched;
  EXPECT_FALSE(CProcess::WaitForExit(static_cast<unsigned int>(foreign), code, 50));
  EXPECT_EQ(kUntouched, code);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  int status = 0;
  EXPECT_EQ(0, ::waitpid(foreign, &status, WNOHANG));  // still running
  ::kill(foreign, SIGKILL);
  ::waitpid(foreign, &status, 0);
}

TEST_F(ProcessTest, InvalidIdsAreRefused) {
  unsigned int code = kUntouched;
  EXPECT_FALSE(CProcess::TerminateProcess(0, 1));
  EXPECT_FALSE(CProcess::TerminateProcess(static_cast<unsigned int>(INT_MAX) + 1u, 1));
  EXPECT_FALSE(CProcess::TerminateProcess(0xFFFFFFFFu, 1));
  EXPECT_FALSE(CProcess::WaitForExit(0, code, 0));
  EXPECT_FALSE(CProcess::WaitForExit(0xFFFFFFFFu, code, 0));
  EXPECT_EQ(kUntouched, code);
}

TEST_F(ProcessTest, WaitForExitTimesOutWhileTheChildRuns) {
  WriteScript(m_Dir / "sleeper", "exec sleep 60");
  CBackgroundRun run;
  StartInBackground(run, m_Dir / "sleeper");
  ASSERT_TRUE(WaitUntil([&] { return LoadPid(run.m_ProcessId) != 0; }));
  const unsigned int pid = LoadPid(run.m_ProcessId);
  unsigned int code = kUntouched;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(CProcess::WaitForExit(pid, code, 150));
  EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                  start)
                .count(),
            140);
  EXPECT_EQ(kUntouched, code);
  EXPECT_TRUE(CProcess::TerminateProcess(pid, 1));
  EXPECT_TRUE(CProcess::WaitForExit(pid, code, 10000));
  EXPECT_EQ(1u, code);
  ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(20)));
  EXPECT_TRUE(run.m_Result.get());
  EXPECT_EQ(1u, run.m_ExitCode);
}

// ExecuteCmd and WaitForExit wait for the same child at the same time;
// whichever reaps it records the code for the other.
TEST_F(ProcessTest, WaitForExitBesideExecuteCmdBothSeeTheCode) {
  const std::string flag = m_Dir / "go";
  WriteScript(m_Dir / "tool", "while [ ! -e '" + flag + "' ]; do sleep 0.01; done\nexit 7");
  for (int round = 0; round < 10; ++round) {
    ::unlink(flag.c_str());
    CBackgroundRun run;
    StartInBackground(run, m_Dir / "tool");
    ASSERT_TRUE(WaitUntil([&] { return LoadPid(run.m_ProcessId) != 0; }));
    const unsigned int pid = LoadPid(run.m_ProcessId);
    unsigned int code = kUntouched;
    auto waiter =
        std::async(std::launch::async, [&] { return CProcess::WaitForExit(pid, code, 20000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(round * 3));
    hosttest::WriteFile(flag, "");
    ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(30)));
    ASSERT_EQ(std::future_status::ready, run.m_Result.wait_for(std::chrono::seconds(30)));
    EXPECT_TRUE(waiter.get()) << "round " << round;
    EXPECT_TRUE(run.m_Result.get()) << "round " << round;
    EXPECT_EQ(7u, code) << "round " << round;
    EXPECT_EQ(7u, run.m_ExitCode) << "round " << round;
  }
}

// Nothing we open leaks into a child: the pidfd of a child that is still
// running is not among the descriptors of the next one.
TEST_F(ProcessTest, ChildrenInheritNoHostDescriptors) {
  WriteScript(m_Dir / "sleeper", "exec sleep 60");
  CBackgroundRun first;
  StartInBackground(first, m_Dir / "sleeper");
  ASSERT_TRUE(WaitUntil([&] { return LoadPid(first.m_ProcessId) != 0; }));
  const std::string listing = m_Dir / "fds.txt";
  WriteScript(m_Dir / "lister",
              "for f in /proc/self/fd/*; do readlink \"$f\"; done > '" + listing + "'");
  const CRun run = Run(m_Dir / "lister");
  ASSERT_TRUE(run.m_Started);
  const std::string fds = ReadFile(listing);
  EXPECT_FALSE(fds.empty());
  EXPECT_EQ(std::string::npos, fds.find("pidfd")) << fds;
  EXPECT_TRUE(CProcess::TerminateProcess(LoadPid(first.m_ProcessId), 1));
  ASSERT_EQ(std::future_status::ready, first.m_Result.wait_for(std::chrono::seconds(20)));
}

// Every descriptor a run opens on the host's side (the tool log and its
// directory, the report and lifeline pipes, the pidfd) is closed again once
// the run is over, whether the tool ran, failed to start or was refused.
TEST_F(ProcessTest, HostKeepsNoDescriptorOfAFinishedRun) {
  halvane::SetToolLog(m_Dir / "tool.log");
  WriteScript(m_Dir / "ok", "echo out; exit 3");
  hosttest::WriteFile(m_Dir / "garbage",
                      "\x7f"
                      "ELF-not-really",
                      0755);
  const std::size_t before = hosttest::OpenDescriptorCount();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(3u, Run(m_Dir / "ok").m_ExitCode);
    EXPECT_FALSE(Run(m_Dir / "garbage").m_Started);
    EXPECT_FALSE(Run(m_Dir / "missing").m_Started);
  }
  // The watcher thread lets go of its run just after ExecuteCmd returns.
  EXPECT_TRUE(WaitUntil([&] { return hosttest::OpenDescriptorCount() <= before; }))
      << hosttest::OpenDescriptorCount() << " open, " << before << " before";
  halvane::SetToolLog("");
}

}  // namespace
