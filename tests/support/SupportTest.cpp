// Tests of the shared test support itself: what every suite relies on when
// it makes a scratch area, drives a child or counts a module's replies. A
// helper that removed through a link, waited forever for a pipe a
// descendant holds, or miscounted replies would make other suites pass or
// hang for the wrong reason.
#include "message/SipJson.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Processes.h"
#include "tests/support/RecordingSwitch.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <set>
#include <signal.h>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace korvex_test {
namespace {

using namespace std::chrono_literals;

TEST(SupportTempDir, RemovalTakesTheTreeButNeverFollowsALink) {
  CTempDir outside("support-outside");
  WriteFile(outside / "keep", "kept");
  std::string path;
  {
    CTempDir dir("support-tree");
    path = dir.Path();
    const std::string deep = dir.Sub("a/b/c");
    WriteFile(deep + "/file", "x");
    ASSERT_EQ(0, ::symlink(outside.Path().c_str(), (dir / "link").c_str()));
    ASSERT_EQ(0, ::chmod(dir.Sub("a/b").c_str(), 0555));
    EXPECT_EQ("x", ReadFile(dir / "a/b/c/file"));
  }
  EXPECT_FALSE(Exists(path));
  EXPECT_EQ("kept", ReadFile(outside / "keep"));
  EXPECT_EQ((std::set<std::string>{"keep"}), Entries(outside.Path()));
}

TEST(SupportTempDir, AMissingBaseIsAClearError) {
  try {
    CTempDir dir("support", "/nonexistent-base-dir");
    FAIL() << "made " << dir.Path();
  } catch (const std::runtime_error& e) {
    const std::string what = e.what();
    EXPECT_NE(what.find("/nonexistent-base-dir/support."), std::string::npos) << what;
    EXPECT_NE(what.find("No such file or directory"), std::string::npos) << what;
  }
}

TEST(SupportFiles, WriteFileSetsTheModeAndNamesAPathItCannotWrite) {
  CTempDir dir("support-files");
  WriteFile(dir / "tool", "#!/bin/sh\n", 0750);
  struct stat info {};
  ASSERT_EQ(0, ::stat((dir / "tool").c_str(), &info));
  EXPECT_EQ(0750u, info.st_mode & 07777u);
  try {
    WriteFile(dir / "missing/file", "x");
    FAIL() << "wrote into a missing directory";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find(dir / "missing/file"), std::string::npos) << e.what();
  }
}

TEST(SupportChild, FinishGivesTheExitStatusAndBothStreams) {
  const CFinished run =
      RunProgram({"/bin/sh", "-c", "read line; echo \"got $line\"; echo oops >&2; exit 3"}, "in\n");
  EXPECT_EQ(3, run.m_Exit);
  EXPECT_EQ("got in\n", run.m_Out);
  EXPECT_EQ("oops\n", run.m_Err);
}

TEST(SupportChild, ExtraEnvironmentReplacesAnInheritedValue) {
  ASSERT_EQ(0, ::setenv("KORVEX_SUPPORT_PROBE", "inherited", 1));
  const CFinished run = RunProgram({"/bin/sh", "-c", "echo \"$KORVEX_SUPPORT_PROBE\""}, "",
                                   {"KORVEX_SUPPORT_PROBE=given"});
  ::unsetenv("KORVEX_SUPPORT_PROBE");
  EXPECT_EQ("given\n", run.m_Out);
}

// A descendant that keeps the output pipe open must not keep Finish waiting
// for an end of file that never comes.
TEST(SupportChild, FinishDoesNotWaitForADescendantThatHoldsThePipes) {
  CChildProcess child({"/bin/sh", "-c", "sleep 60 & echo $!; exit 0"});
  ASSERT_TRUE(child.WaitForLine([](const std::string&) { return true; }, 30s)) << child.Err();
  const pid_t sleeper = static_cast<pid_t>(std::stol(child.OutputLines().front()));
  const CFinished run = child.Finish(30);
  // Finish came back while the descendant (and its hold on the pipes) lives.
  EXPECT_TRUE(ProcessRuns(sleeper));
  ::kill(sleeper, SIGKILL);
  EXPECT_EQ(0, run.m_Exit);
}

TEST(SupportChild, OwnGroupIsKilledWithTheObject) {
  pid_t sleeper = 0;
  {
    CChildOptions options;
    options.m_OwnGroup = true;
    CChildProcess child({"/bin/sh", "-c", "sleep 60 & echo $!; wait"}, {}, options);
    ASSERT_TRUE(child.WaitForLine([](const std::string&) { return true; }, 30s)) << child.Err();
    sleeper = static_cast<pid_t>(std::stol(child.OutputLines().front()));
    ASSERT_TRUE(ProcessRuns(sleeper));
  }
  EXPECT_TRUE(WaitUntil([&] { return !ProcessRuns(sleeper); }, 30s));
}

TEST(SupportChild, ReadLinesTakesExactlyTheLinesAskedFor) {
  CChildProcess child({"/bin/sh", "-c", "printf 'a\\nb\\nc\\n'"});
  std::string text;
  ASSERT_TRUE(child.ReadLines(2, 30000, &text));
  EXPECT_EQ("a\nb\n", text);
  text.clear();
  ASSERT_TRUE(child.ReadLines(1, 30000, &text));
  EXPECT_EQ("c\n", text);
  EXPECT_FALSE(child.ReadLines(1, 2000));  // the output has ended
  EXPECT_EQ(0, child.Finish(30).m_Exit);
}

TEST(SupportChild, WaitForExitReportsASignal) {
  CChildProcess child({"/bin/sh", "-c", "kill -TERM $$"});
  EXPECT_EQ(128 + SIGTERM, child.WaitForExit(30s));
}

TEST(SupportChild, AProgramThatCannotStartIsAClearError) {
  EXPECT_THROW(CChildProcess({"/nonexistent/program"}), std::runtime_error);
}

void Load(SipJson& message, const std::string& text) {
  ASSERT_TRUE(message.FromJson(text.data(), text.size())) << text;
  message.m_CmdIndex = 0;
}

TEST(SupportSwitch, CountsRepliesByObjectAndStatusAndKeepsCopiesOnlyWhenAsked) {
  CRecordingSwitch counting(/*keepCopies=*/false);
  CRecordingSwitch recording;
  for (const char* text : {R"({"SIP":{"V":1,"CMD":[{"OC":13312,"OI":7,"ST":0}]}})",
                           R"({"SIP":{"V":1,"CMD":[{"OC":13312,"OI":7,"ST":3}]}})",
                           R"({"SIP":{"V":1,"CMD":[{"OC":13312,"OI":9,"ST":3}]}})"}) {
    SipJson message;
    Load(message, text);
    counting.SendReply(nullptr, message);
    recording.SendReply(nullptr, message);
  }
  EXPECT_EQ(3u, counting.ReplyCount());
  EXPECT_TRUE(counting.Replies().empty());
  EXPECT_EQ((std::map<unsigned int, unsigned int>{{7, 2}, {9, 1}}), counting.RepliesByObjectId());
  EXPECT_EQ((std::map<unsigned int, unsigned int>{{0, 1}, {3, 2}}), counting.RepliesByStatus());
  ASSERT_EQ(3u, recording.Replies().size());
  EXPECT_NE(std::string::npos, recording.Replies()[2].m_Json.find("\"OI\":9"));
  EXPECT_TRUE(recording.WaitForReplies(3, 0));
  EXPECT_FALSE(recording.WaitForReplies(4, 10));
}

TEST(SupportSwitch, TheWatcherSeesAReplyBeforeItIsCounted) {
  CRecordingSwitch replies(/*keepCopies=*/false);
  std::size_t countSeen = 99;
  unsigned int statusSeen = 0;
  replies.SetReplyWatcher([&](const SipJson& message) {
    countSeen = replies.ReplyCount();
    statusSeen = message.Status();
  });
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":1,"ST":6}]}})");
  replies.SendReply(nullptr, message);
  EXPECT_EQ(0u, countSeen);
  EXPECT_EQ(6u, statusSeen);
  EXPECT_EQ(1u, replies.ReplyCount());
}

TEST(SupportSwitch, AsyncAnswerIsWrittenIntoTheRequest) {
  CRecordingSwitch other;
  other.SetAsyncAnswer(
      [](SipJson& request) { request.SetCmdValue(request.GetCmd(), "ST", 12, 0); });
  SipJson request;
  Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":61522}]}})");
  EXPECT_EQ(1, other.AsyncRequest(nullptr, request, 30));
  EXPECT_EQ(12u, request.Status());
  EXPECT_EQ(1u, other.AsyncRequestCount());
  ASSERT_EQ(1u, other.AsyncRequests().size());
  EXPECT_EQ(30u, other.AsyncRequests()[0].m_Timeout);
}

}  // namespace
}  // namespace korvex_test
