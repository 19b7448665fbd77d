// Unit tests of the two long jobs: archive creation (the Korvex tool run as a
// child process) and archive transfer to the BMC through the HTI module.
#include "host/HostControl.h"
#include "message/SipJson.h"
#include "module/EM_KORVEX.h"
#include "tests/module/ModuleTestSupport.h"
#include "tests/module/ModuleUnitFixture.h"
#include "tests/support/RecordingSwitch.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

using namespace korvex_test;

namespace {

std::vector<CLine> CreateHeadLines(unsigned int timeout, bool oldArchive) {
  std::vector<CLine> lines = {{3, "\nEM_KORVEX (Create)  : Archive creation request, timeout=" +
                                      std::to_string(timeout) + " sec."},
                              {2, "\nEM_KORVEX (Create)  : Start Korvex archive creation..."}};
  if (oldArchive) {
    Append(lines, {{3,
                    "\nEM_KORVEX           :   delete previous Korvex archive (be sure to have the "
                    "latest one!)"},
                   {4, "\nEM_KORVEX           :   previous Korvex archive deleted"}});
  } else {
    lines.push_back({4, "\nEM_KORVEX           :   Korvex archive file not existing"});
  }
  return lines;
}

std::vector<CLine> RunLines(const std::string& executable) {
  return {{3, "\nEM_KORVEX (Create)  :   create Korvex process, command line: " + executable},
          {3, "\nEM_KORVEX (Create)  : Korvex process exit"}};
}

std::vector<CLine> CreatedLines(unsigned int sizeKb, long duration) {
  return {{2, "\nEM_KORVEX (Create)  : Korvex archive successfully created"},
          {2, "\nEM_KORVEX (Create)  :   file size = " + std::to_string(sizeKb) + " kBytes"},
          {2, "\nEM_KORVEX (Create)  :   duration = " + std::to_string(duration) + " seconds"},
          {2, "\n"}};
}

}  // namespace

class CreationTest : public ModuleUnitTest {
 protected:
  void SetUp() override {
    ModuleUnitTest::SetUp();
    SetPaths(m_Module);
    halvane::TakeTrace();
  }

  // Runs the job on a fresh request and returns its trace; the message
  // afterwards is in m_Json, the result in m_Result.
  std::string Run(const std::string& json) {
    SipJson request;
    Load(request, json);
    halvane::TakeTrace();
    m_Before = time(nullptr);
    m_Result = m_Module.StartArchiveCreation(request);
    m_After = time(nullptr);
    m_Json = request.ToJson();
    return halvane::TakeTrace();
  }

  // The duration the trace reports, checked against the wall clock around
  // the call (the job counts whole seconds from before the process search).
  long TracedDuration(const std::string& trace) {
    const std::string marker = "duration = ";
    const std::size_t at = trace.find(marker);
    if (at == std::string::npos) return -1;
    const long duration = std::strtol(trace.c_str() + at + marker.size(), nullptr, 10);
    EXPECT_GE(duration, 0);
    EXPECT_LE(duration, static_cast<long>(m_After - m_Before));
    return duration;
  }

  EM_KORVEX m_Module;
  bool m_Result = false;
  std::string m_Json;
  time_t m_Before = 0;
  time_t m_After = 0;
};

// ----- archive creation ---------------------------------------------------------------

TEST_F(CreationTest, SwitchShutdownGives6WithoutSearchingOrRunningAnything) {
  EXPECT_EQ(0, m_Module.Notify(0x20000, nullptr, nullptr));
  ASSERT_EQ(1u, m_Module.m_SwitchShutdown);
  // A foreign tool runs: a search would give 5, not 6.
  CForeignTool foreign(m_Dir / "foreign");
  ASSERT_TRUE(foreign.WaitRunning(30000));
  WriteTool(m_Dir.Path(), "printf ran > '" + Root() + "ran'\nexit 0");
  WriteFile(Archive(), "old archive");
  ExpectTraceAtEveryLevel(
      [&] { return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})"); },
      [] {
        return std::vector<CLine>{
            {2,
             "\n\nEM_KORVEX (Create)  : ## NOTE: SWITCH shutdown in progress - do not create "
             "archive"}};
      });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":6}]}})", m_Json);
  EXPECT_EQ("old archive", ReadFile(Archive()));  // left in place
  EXPECT_FALSE(Exists(Root() + "ran"));
}

TEST_F(CreationTest, ForeignToolGives5AndFlagsTheHeaderAfterDeletingTheOldArchive) {
  CForeignTool foreign(m_Dir / "foreign");
  ASSERT_TRUE(foreign.WaitRunning(30000));
  WriteTool(m_Dir.Path(), "printf ran > '" + Root() + "ran'\nexit 0");
  ExpectTraceAtEveryLevel(
      [&] {
        WriteFile(Archive(), "old archive");
        const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})");
        EXPECT_FALSE(Exists(Archive()));
        return trace;
      },
      [] {
        std::vector<CLine> lines = CreateHeadLines(30, true);
        lines.push_back({1,
                         "\n\nEM_KORVEX (Create)  : ## ERROR! Foreign Korvex process already "
                         "running - cannot start another Korvex instance!"});
        return lines;
      });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":5}],"C":true}})", m_Json);
  EXPECT_FALSE(Exists(Root() + "ran"));

  // A "C" already in the header is overwritten in its place.
  Run(R"({"SIP":{"V":1,"C":false,"CMD":[{"OC":13313}]}})");
  EXPECT_EQ(R"({"SIP":{"V":1,"C":true,"CMD":[{"OC":13313,"ST":5}]}})", m_Json);
}

TEST_F(CreationTest, ToolExitingWith0WithoutArchiveGives6) {
  WriteTool(m_Dir.Path(), "exit 0");
  ExpectTraceAtEveryLevel(
      [&] {
        WriteFile(Archive(), "old archive");
        return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})");
      },
      [&] {
        std::vector<CLine> lines = CreateHeadLines(30, true);
        Append(lines, RunLines(Root() + "Korvex"));
        lines.push_back({1,
                         "\n\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process finished "
                         "successfully, but archive not created!\n"});
        return lines;
      });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":6}]}})", m_Json);
  EXPECT_FALSE(Exists(Archive()));  // the old one went before the run
  EXPECT_EQ(0u, m_Module.m_ToolProcessId);
}

TEST_F(CreationTest, ArchiveOf1048575BytesIsTracedAs1023KBytes) {
  WriteTool(m_Dir.Path(), "truncate -s 1048575 '" + Archive() + "'\nexit 0");
  for (unsigned int level = 1; level <= 5; ++level) {
    halvane::SetTraceLevel(level);
    const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":120}]}})");
    std::vector<CLine> lines = CreateHeadLines(120, false);
    Append(lines, RunLines(Root() + "Korvex"));
    Append(lines, CreatedLines(1023, level >= 2 ? TracedDuration(trace) : 0));
    EXPECT_EQ(TraceUpTo(lines, level), trace) << "host trace level " << level;
    EXPECT_TRUE(m_Result);
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":120,"ST":0}]}})", m_Json);
    ASSERT_EQ(0, std::remove(Archive().c_str()));
  }
}

TEST_F(CreationTest, ArchiveOf4GiBOrMoreIsTracedFromItsLow32Bits) {
  // 4 GiB + 3 KiB, sparse: only the low 32 bits (3 KiB) are traced.
  WriteTool(m_Dir.Path(), "truncate -s 4294970368 '" + Archive() + "'\nexit 0");
  const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313}]}})");
  EXPECT_TRUE(m_Result);
  EXPECT_TRUE(ContainsInOrder(trace, {"\nEM_KORVEX (Create)  : Korvex archive successfully created",
                                      "\nEM_KORVEX (Create)  :   file size = 3 kBytes\n"}))
      << trace;
  ASSERT_EQ(0, std::remove(Archive().c_str()));
}

TEST_F(CreationTest, RequestWithoutTimeoutRunsNormally) {
  WriteTool(m_Dir.Path(), "printf 0123456789 > '" + Archive() + "'\nexit 0");
  const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313}]}})");
  std::vector<CLine> lines = CreateHeadLines(0, false);
  Append(lines, RunLines(Root() + "Korvex"));
  Append(lines, CreatedLines(0, TracedDuration(trace)));
  EXPECT_EQ(TraceUpTo(lines, 5), trace);
  EXPECT_TRUE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"ST":0}]}})", m_Json);
  EXPECT_EQ("0123456789", ReadFile(Archive()));
}

TEST_F(CreationTest, TimeoutIsTracedWithItsLow16Bits) {
  WriteTool(m_Dir.Path(), "exit 0");
  const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":65541}]}})");
  EXPECT_TRUE(ContainsInOrder(
      trace, {"\nEM_KORVEX (Create)  : Archive creation request, timeout=5 sec.\n"}));
}

TEST_F(CreationTest, ToolExitingWith1IsReportedAsShutdownTermination) {
  WriteTool(m_Dir.Path(), "exit 1");
  ExpectTraceAtEveryLevel(
      [&] { return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})"); },
      [&] {
        std::vector<CLine> lines = CreateHeadLines(30, false);
        Append(lines, RunLines(Root() + "Korvex"));
        lines.push_back({2,
                         "\nEM_KORVEX (Create)  : ## Korvex archive process was terminated because "
                         "of module shutdown!"});
        return lines;
      });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":6}]}})", m_Json);
}

TEST_F(CreationTest, ToolTerminatedByStopGives6WithTheShutdownTrace) {
  // The job runs on a thread of the test's, as it would on the worker; Stop
  // on this thread finds the published id and ends the tool with exit code 1.
  CFifo started(m_Dir / "started");
  ASSERT_TRUE(started.Valid());
  // The tool's parent is the supervisor whose id ExecuteCmd publishes; its
  // stat line (read by the shell itself) numbers it as this host does.
  WriteTool(m_Dir.Path(), "read -r s < /proc/self/stat; set -- $s; echo $4 > '" + started.Path() +
                              "'\nsleep 60\nexit 0");
  SipJson request;
  Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})");
  halvane::TakeTrace();
  bool result = true;
  std::thread job([&] { result = m_Module.StartArchiveCreation(request); });
  std::string pid;
  const bool running = started.ReadLine(pid, 30000);
  unsigned int published = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (running && published == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
    published = __atomic_load_n(&m_Module.m_ToolProcessId, __ATOMIC_ACQUIRE);
  }
  EXPECT_EQ(1, m_Module.Stop());
  job.join();
  ASSERT_TRUE(running);
  ASSERT_EQ(pid, std::to_string(published));

  EXPECT_FALSE(result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":6}]}})", request.ToJson());
  EXPECT_EQ(0u, m_Module.m_ToolProcessId);
  EXPECT_FALSE(Exists(Archive()));
  // The job's lines in their order, and Stop's; the two threads write side
  // by side.
  const std::string trace = halvane::TakeTrace();
  std::vector<std::string> jobLines;
  std::vector<CLine> expected = CreateHeadLines(30, false);
  Append(expected, RunLines(Root() + "Korvex"));
  expected.push_back({2,
                      "\nEM_KORVEX (Create)  : ## Korvex archive process was terminated because "
                      "of module shutdown!"});
  for (const CLine& line : expected) jobLines.push_back(line.m_Text);
  EXPECT_TRUE(ContainsInOrder(trace, jobLines));
  EXPECT_TRUE(ContainsInOrder(
      trace,
      {"\nEM_KORVEX (Stop)    : -> Korvex archive creation in progress - terminate process (#" +
           pid + ") and wait for exit...",
       "\nEM_KORVEX (Stop)    : Korvex process exit"}));
  EXPECT_EQ(1u, CountOf(trace, "terminated because of module shutdown!"));
  EXPECT_EQ(0u, CountOf(trace, "terminated unsuccessfully"));
}

TEST_F(CreationTest, ToolExitingWithAnotherCodeIsReportedWithIt) {
  for (const auto& exitCode :
       std::vector<std::pair<int, std::string>>{{7, "0x07"}, {200, "0xC8"}}) {
    WriteTool(m_Dir.Path(), "exit " + std::to_string(exitCode.first));
    ExpectTraceAtEveryLevel(
        [&] { return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})"); },
        [&] {
          std::vector<CLine> lines = CreateHeadLines(30, false);
          Append(lines, RunLines(Root() + "Korvex"));
          lines.push_back({2,
                           "\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process was "
                           "terminated unsuccessfully; process exit code = " +
                               exitCode.second + "!"});
          return lines;
        });
    EXPECT_FALSE(m_Result);
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":6}]}})", m_Json);
  }
}

TEST_F(CreationTest, ToolThatCannotBeRunGives6WithoutFurtherTrace) {
  // No executable under the root at all. The id left by an earlier run is
  // cleared before the attempt, and a failed start writes no id.
  ExpectTraceAtEveryLevel(
      [&] {
        m_Module.m_ToolProcessId = 4242;
        return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":1}]}})");
      },
      [&] {
        std::vector<CLine> lines = CreateHeadLines(30, false);
        lines.push_back({3, "\nEM_KORVEX (Create)  :   create Korvex process, command line: " +
                                Root() + "Korvex"});
        return lines;
      });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"TO":30,"ST":6}]}})", m_Json);
  EXPECT_EQ(0u, m_Module.m_ToolProcessId);
}

TEST_F(CreationTest, StatusGoesIntoThePaddedCurrentCommand) {
  WriteTool(m_Dir.Path(), "exit 0");
  SipJson request;
  Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13313}]}})");
  request.m_CmdIndex = 1;
  EXPECT_FALSE(m_Module.StartArchiveCreation(request));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313},{"ST":6}]}})", request.ToJson());
}

TEST_F(CreationTest, ToolProcessIdIsPublishedWhileTheToolRunsAndClearedAfterwards) {
  CFifo started(m_Dir / "started");
  CHold hold(m_Dir / "hold");
  ASSERT_TRUE(started.Valid());
  ASSERT_TRUE(hold.Valid());
  WriteTool(m_Dir.Path(), "read -r s < /proc/self/stat; set -- $s; echo $4 > '" + started.Path() +
                              "'\nread x < '" + hold.Path() + "'\nprintf zip > '" + Archive() +
                              "'\nexit 0");
  m_Module.m_ToolProcessId = 12345;  // cleared before the run
  SipJson request;
  Load(request, R"({"SIP":{"V":1,"CMD":[{"OC":13313}]}})");
  bool result = false;
  std::thread worker([&] { result = m_Module.StartArchiveCreation(request); });
  std::string pid;
  const bool running = started.ReadLine(pid, 30000);
  // The host stores the id right after the spawn returns, which races the
  // tool's own first line; the tool is held, so the id must show up while it
  // runs. Bounded, and over long before the bound unless the id never comes.
  unsigned int published = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (running && published == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
    published = __atomic_load_n(&m_Module.m_ToolProcessId, __ATOMIC_ACQUIRE);
  }
  hold.Release();
  worker.join();
  ASSERT_TRUE(running);
  EXPECT_EQ(pid, std::to_string(published));
  EXPECT_TRUE(result);
  EXPECT_EQ(0u, m_Module.m_ToolProcessId);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"ST":0}]}})", request.ToJson());
}

// ----- archive transfer ------------------------------------------------------------------

class TransferTest : public ModuleUnitTest {
 protected:
  void SetUp() override {
    ModuleUnitTest::SetUp();
    SetPaths(m_Module);
    m_Module.m_pSwitch = &m_Switch;
    WriteFile(Archive(), "zip");
    halvane::TakeTrace();
  }

  std::string Run(const std::string& json) {
    SipJson request;
    Load(request, json);
    halvane::TakeTrace();
    m_Result = m_Module.TransferArchiveToBmc(request);
    m_Json = request.ToJson();
    return halvane::TakeTrace();
  }

  // The file-transfer request as the HTI module receives it.
  std::string Sent(const std::string& timeoutMember, const std::string& bmcName) const {
    return R"({"SIP":{"V":1,"CMD":[{"OC":61522,)" + timeoutMember +
           R"("DA":{"FileType":2,"LocalFilePath":")" + Archive() + R"(","BmcFilePath":")" +
           bmcName + R"("}}]}})";
  }

  std::vector<CLine> Lines(unsigned int received, const std::string& name, unsigned int sent,
                           const std::string& status) const {
    std::vector<CLine> lines = {{3, "\nEM_KORVEX (Transfer): Transfer archive to BMC, timeout=" +
                                        std::to_string(received) + " sec."}};
    if (!name.empty()) {
      lines.push_back({3, "\nEM_KORVEX (Transfer):   ...BMC local name = \"" + name + "\""});
    }
    Append(lines, {{3,
                    "\nEM_KORVEX (Transfer): Sending Korvex archive transfer down to HTI module "
                    "(AsyncRequest)..."},
                   {3, "\nEM_KORVEX (Transfer):   local file: " + Archive()},
                   {3, "\nEM_KORVEX (Transfer):   BMC file:   " + name},
                   {3, "\nEM_KORVEX (Transfer):   file type:  2 (Korvex)"},
                   {3, "\nEM_KORVEX (Transfer):   timeout:    " + std::to_string(sent) + " sec."},
                   {3, "\nEM_KORVEX (Transfer): Korvex archive transfer finished, cmd status = " +
                           status}});
    return lines;
  }

  void AnswerWith(unsigned int status) {
    m_Switch.SetAsyncAnswer([status](SipJson& request) { request.SetStatus(status); });
  }

  CRecordingSwitch m_Switch;
  EM_KORVEX m_Module;
  bool m_Result = false;
  std::string m_Json;
};

TEST_F(TransferTest, SuccessfulTransferShortensTheTimeoutAndRepliesWithoutData) {
  AnswerWith(0);
  ExpectTraceAtEveryLevel(
      [&] {
        return Run(
            R"({"SIP":{"V":1,"CMD":[{"OC":13314,"MI":65538,"CA":4294967295,"TO":30,"DA":"bmc/file.zip","ST":1}]}})");
      },
      [&] { return Lines(30, "bmc/file.zip", 29, "0x00"); });
  EXPECT_TRUE(m_Result);
  // "DA" goes; the library's removal moves the last member ("ST") into its place.
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"MI":65538,"CA":4294967295,"TO":30,"ST":0}]}})",
            m_Json);
  const std::vector<CRecordingSwitch::CCall> sent = m_Switch.AsyncRequests();
  ASSERT_EQ(5u, sent.size());
  for (const CRecordingSwitch::CCall& call : sent) {
    EXPECT_EQ(Sent(R"("TO":29,)", "bmc/file.zip"), call.m_Json);
    EXPECT_EQ(5000u, call.m_Timeout);
    EXPECT_EQ(static_cast<CIExtensionModule*>(&m_Module), call.m_pSender);
  }
  EXPECT_TRUE(m_Switch.Replies().empty());  // the reply is the task runner's job
}

TEST_F(TransferTest, TimeoutIsShortenedOnlyFrom2Up) {
  AnswerWith(0);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"("TO":1,)", R"("TO":1,)"},
      {R"("TO":2,)", R"("TO":1,)"},
      {R"("TO":0,)", ""},
      {"", ""},
      {R"("TO":65566,)", R"("TO":29,)"}};  // low 16 bits: 30
  for (const auto& c : cases) {
    Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,)" + c.first + R"("DA":"n"}]}})");
    ASSERT_FALSE(m_Switch.AsyncRequests().empty());
    EXPECT_EQ(Sent(c.second, "n"), m_Switch.AsyncRequests().back().m_Json) << c.first;
  }
  const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"DA":"n"}]}})");
  EXPECT_EQ(TraceUpTo(Lines(0, "n", 0, "0x00"), 5), trace);
  const std::string traceOne = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":1,"DA":"n"}]}})");
  EXPECT_EQ(TraceUpTo(Lines(1, "n", 1, "0x00"), 5), traceOne);
}

TEST_F(TransferTest, NullOrMissingDataGivesAnEmptyBmcNameAndNoNameTrace) {
  AnswerWith(0);
  for (const std::string& data : {std::string(R"(,"DA":null)"), std::string(),
                                  std::string(R"(,"DA":5)"), std::string(R"(,"DA":["a"])")}) {
    const std::string trace =
        Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":10)" + data + R"(,"ST":1}]}})");
    EXPECT_EQ(TraceUpTo(Lines(10, "", 9, "0x00"), 5), trace) << data;
    EXPECT_EQ(Sent(R"("TO":9,)", ""), m_Switch.AsyncRequests().back().m_Json) << data;
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":10,"ST":0}]}})", m_Json) << data;
    EXPECT_TRUE(m_Result);
  }
}

TEST_F(TransferTest, RawDataGivesTheNameUpToItsFirstZeroByte) {
  AnswerWith(0);
  std::string trace =
      Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":10,"DA":{"RAW":[98,109,99,46,122,0,120]}}]}})");
  EXPECT_EQ(TraceUpTo(Lines(10, "bmc.z", 9, "0x00"), 5), trace);
  EXPECT_EQ(Sent(R"("TO":9,)", "bmc.z"), m_Switch.AsyncRequests().back().m_Json);

  trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":10,"DA":{"RAW":[0,65,66]}}]}})");
  EXPECT_EQ(TraceUpTo(Lines(10, "", 9, "0x00"), 5), trace);
  EXPECT_EQ(Sent(R"("TO":9,)", ""), m_Switch.AsyncRequests().back().m_Json);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":10,"ST":0}]}})", m_Json);
}

TEST_F(TransferTest, MissingArchiveGives3AndSendsNothing) {
  ASSERT_EQ(0, std::remove(Archive().c_str()));
  AnswerWith(0);
  ExpectTraceAtEveryLevel(
      [&] { return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"DA":"f.zip","ST":1}]}})"); },
      [] {
        return std::vector<CLine>{
            {3, "\nEM_KORVEX (Transfer): Transfer archive to BMC, timeout=30 sec."},
            {3, "\nEM_KORVEX (Transfer):   ...BMC local name = \"f.zip\""},
            {1,
             "\n\nEM_KORVEX (Transfer): ## ERROR! Korvex archive does not exist - cannot transfer "
             "file!\n"}};
      });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"DA":"f.zip","ST":3}]}})", m_Json);
  EXPECT_TRUE(m_Switch.AsyncRequests().empty());
}

TEST_F(TransferTest, WithoutSwitchTheStatusIs6FromTheTransferRequest) {
  m_Module.m_pSwitch = nullptr;
  ExpectTraceAtEveryLevel(
      [&] { return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"DA":"f","ST":1}]}})"); },
      [&] { return Lines(30, "f", 29, "0x06"); });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"ST":6}]}})", m_Json);
  EXPECT_TRUE(m_Switch.AsyncRequests().empty());
}

TEST_F(TransferTest, HtiModuleWritingNoStatusGives22) {
  // The recording switch writes nothing into the request by default.
  const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"DA":"f","ST":1}]}})");
  EXPECT_EQ(TraceUpTo(Lines(30, "f", 29, "0x16"), 5), trace);
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"ST":22}]}})", m_Json);
  ASSERT_EQ(1u, m_Switch.AsyncRequests().size());
}

TEST_F(TransferTest, HtiModuleStatusIsPassedOn) {
  AnswerWith(9);
  const std::string trace = Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"DA":"f"}]}})");
  EXPECT_EQ(TraceUpTo(Lines(30, "f", 29, "0x09"), 5), trace);
  EXPECT_FALSE(m_Result);
  // Without an "ST" before, the status is appended after "DA" went.
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"ST":9}]}})", m_Json);
}

TEST_F(TransferTest, SwitchShutdownGives6AndSendsNothing) {
  AnswerWith(0);
  m_Module.Notify(0x20000, nullptr, nullptr);
  ExpectTraceAtEveryLevel(
      [&] { return Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"DA":"f","ST":1}]}})"); },
      [] {
        return std::vector<CLine>{
            {2,
             "\n\nEM_KORVEX (Transfer): ## ERROR: SWITCH shutdown in progress - do not transfer "
             "archive"}};
      });
  EXPECT_FALSE(m_Result);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"TO":30,"DA":"f","ST":6}]}})", m_Json);
  EXPECT_TRUE(m_Switch.AsyncRequests().empty());
}

TEST_F(TransferTest, NoHeaderFieldOfTheRequestIsCopiedIntoTheTransferRequest) {
  AnswerWith(0);
  Run(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"OE":3,"OI":4,"MI":5,"CA":6,"TO":7,"DA":"f"}]}})");
  ASSERT_EQ(1u, m_Switch.AsyncRequests().size());
  EXPECT_EQ(Sent(R"("TO":6,)", "f"), m_Switch.AsyncRequests()[0].m_Json);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"OE":3,"OI":4,"MI":5,"CA":6,"TO":7,"ST":0}]}})",
            m_Json);
}
