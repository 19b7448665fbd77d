// Integration tests: libEM_KORVEX.so loaded with dlopen into a host that
// provides the host services, driven through its entry points and its
// virtual interface with a recording switch and fake Korvex tools.
#include "tests/module/ModuleTestSupport.h"
#include "tests/module/PluginHost.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

using namespace korvex_test;

namespace {

// A generous upper bound for waits on fake tools: they end as soon as the
// awaited thing happens and only matter for a broken module, which then
// fails instead of hanging.
constexpr int kToolWaitMs = 60000;

}  // namespace

// ----- entry points ---------------------------------------------------------------

TEST_F(PluginTest, EntryPointsNameCreateAndDeleteTheOneInstance) {
  EXPECT_STREQ("EM_KORVEX", Plugin().Library().GetModuleName());
  EXPECT_STREQ("EM_KORVEX", m_Module->GetName());
  // The instance made in SetUp is deleted once, then there is none.
  EXPECT_EQ(1, Plugin().Library().Delete(nullptr));
  EXPECT_EQ(0, Plugin().Library().Delete(nullptr));
  EXPECT_STREQ("EM_KORVEX", Plugin().Library().GetModuleName());
  EXPECT_EQ(TraceUpTo(DestructionLines(), 5), halvane::TakeTrace());
  void* module = nullptr;
  ASSERT_EQ(1, Plugin().Library().Create(&module));
  m_Module = static_cast<CIExtensionModule*>(module);
  EXPECT_EQ("\nCTaskSerializer     : Enable all Tasks\nEM_KORVEX           : CLASS CREATED!",
            halvane::TakeTrace());
}

TEST_F(PluginTest, PropertiesThroughTheVirtualInterface) {
  alignas(8) unsigned char record[246];
  for (std::size_t i = 0; i < sizeof(record); ++i) record[i] = static_cast<unsigned char>(0xC3 ^ i);
  unsigned int size = 246;
  std::memcpy(record, &size, sizeof(size));
  std::vector<unsigned char> expected(record, record + sizeof(record));
  expected[8] |= 0x03;
  expected[21] &= 0xFC;
  const unsigned int kind = 2;
  std::memcpy(expected.data() + 42, &kind, sizeof(kind));
  std::fill(expected.begin() + 46, expected.end(), 0);
  std::memcpy(expected.data() + 46, "EM_KORVEX", 9);
  std::memcpy(expected.data() + 146, "Korvex extension module", 23);

  EXPECT_EQ(1, m_Module->GetProperties(*reinterpret_cast<_ExtensionModuleProperties*>(record)));
  EXPECT_EQ(expected, std::vector<unsigned char>(record, record + sizeof(record)));

  size = 245;
  std::memcpy(record, &size, sizeof(size));
  const std::vector<unsigned char> before(record, record + sizeof(record));
  EXPECT_EQ(0, m_Module->GetProperties(*reinterpret_cast<_ExtensionModuleProperties*>(record)));
  EXPECT_EQ(before, std::vector<unsigned char>(record, record + sizeof(record)));
}

TEST_F(PluginTest, SetupActionsThroughTheExportNeedNoInstance) {
  EXPECT_EQ(1, Plugin().Library().Delete(nullptr));
  m_Module = nullptr;
  halvane::TakeTrace();
  EXPECT_EQ(0u, Plugin().Library().SetupAction(3));
  EXPECT_EQ("\nEM_KORVEX           : -> SetupAction\nEM_KORVEX           : <- SetupAction",
            halvane::TakeTrace());
  // Without a root in the configuration store action 4 fails before it
  // looks at any directory.
  halvane::ClearRegistry();
  EXPECT_EQ(0u, Plugin().Library().SetupAction(4));
  EXPECT_EQ(
      "\nEM_KORVEX           : -> SetupAction"
      "\nEM_KORVEX (SetupAct): ## Cleanup Korvex archives"
      "\nEM_KORVEX (GetPath) : ## Korvex pointer key not existing - no Halvane component "
      "installed."
      "\nEM_KORVEX (SetupAct): ## ERROR! Korvex path could not be evaluated!"
      "\nEM_KORVEX           : <- SetupAction",
      halvane::TakeTrace());
}

// ----- installation query and cabinet ------------------------------------------------

TEST_F(PluginTest, InstallationQueryBeforeAndAfterTheToolExists) {
  EXPECT_EQ(0, Start(&m_Switch));
  std::string json;
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295,"ST":0,"DA":0}]}})", json);
  EXPECT_TRUE(
      ContainsInOrder(halvane::TakeTrace(),
                      {"\nEM_KORVEX (Start)   : -> Korvex not installed - module not started!",
                       "\nEM_KORVEX (REQUEST) : OC 0x3400-0x0000 OID 0x0000 CABID -001 MID "
                       "0x00000000 Stat 0x16",
                       "\nEM_KORVEX           : -> Korvex is NOT installed",
                       "\nEM_KORVEX (RETURN)  : OC 0x3400-0x0000 OID 0x0000 CABID -001 MID "
                       "0x00000000 Stat 0x00 Data 0"}));
  EXPECT_EQ(1, Stop());

  WriteTool(m_Dir.Path(), "exit 0");
  EXPECT_EQ(1, Start(&m_Switch));
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295,"ST":0,"DA":1}]}})", json);
  EXPECT_TRUE(
      ContainsInOrder(halvane::TakeTrace(),
                      {"\nEM_KORVEX (Start)   : -> Korvex is installed - module will be started",
                       "\nEM_KORVEX           : -> Korvex is installed"}));
  EXPECT_EQ(1, Stop());
  EXPECT_TRUE(m_Switch.Replies().empty());  // answered in place, never through SendReply
}

TEST_F(PluginTest, RequestsForAnotherCabinetAreRefusedAndNeverRun) {
  WriteTool(m_Dir.Path(), "printf ran > '" + Root() + "ran'\nexit 0");
  ASSERT_EQ(1, Start(&m_Switch));
  EXPECT_EQ(1, m_Module->SetServerCabinetNumber(2));
  std::string json;
  EXPECT_EQ(0, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":5}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":5,"ST":20}]}})", json);
  EXPECT_EQ(0, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13312}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"ST":20}]}})", json);
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\n\nEM_KORVEX           : ## Server cabinet number = 2 ##\n",
       "\nEM_KORVEX (REQUEST) : OC 0x3401-0x0000 OID 0x0000 CABID 0005 MID 0x00000000 Stat 0x16",
       "\nEM_KORVEX           : Request not for server cabinet -> refused"}));
  // This cabinet and all cabinets are served.
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":2}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":2,"ST":0,"DA":1}]}})", json);
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":9,"CA":4294967295}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":9,"CA":4294967295,"ST":22}]}})", json);
  ASSERT_TRUE(m_Switch.WaitForReplies(1, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  // Only the request for all cabinets was run and answered.
  const std::vector<CRecordingSwitch::CCall> replies = m_Switch.Replies();
  ASSERT_EQ(1u, replies.size());
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":9,"CA":4294967295,"ST":6}]}})",
            replies[0].m_Json);
}

TEST_F(PluginTest, AllCabinetsRequestIsServedOnEveryCabinet) {
  EXPECT_EQ(1, m_Module->SetServerCabinetNumber(7));
  std::string json;
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295,"ST":0,"DA":0}]}})", json);
}

TEST_F(PluginTest, UnknownOpcodesAreNotHandled) {
  WriteTool(m_Dir.Path(), "exit 0");
  ASSERT_EQ(1, Start(&m_Switch));
  halvane::TakeTrace();
  std::string json;
  EXPECT_EQ(0, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13319,"OE":1,"CA":4294967295}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13319,"OE":1,"CA":4294967295,"ST":1}]}})", json);
  EXPECT_EQ(
      "\nEM_KORVEX (REQUEST) : OC 0x3407-0x0001 OID 0x0000 CABID -001 MID 0x00000000 Stat 0x16"
      "\nEM_KORVEX (RETURN)  : OC 0x3407-0x0001 OID 0x0000 CABID -001 MID 0x00000000 Stat 0x01",
      halvane::TakeTrace());
  EXPECT_EQ(0, Request(R"({"SIP":{"V":1,"CMD":[{"OC":20480,"CA":4294967295}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":20480,"CA":4294967295,"ST":1}]}})", json);
  EXPECT_EQ("", halvane::TakeTrace());
  EXPECT_EQ(1, Stop());
  EXPECT_TRUE(m_Switch.Replies().empty());
}

// ----- archive creation -----------------------------------------------------------------

TEST_F(PluginTest, ToolWritingTheArchiveGivesStatus0InTheOneReply) {
  WriteTool(m_Dir.Path(), "printf 'zip data' > '" + Archive() + "'\nexit 0");
  ASSERT_EQ(1, Start(&m_Switch));
  std::string json;
  EXPECT_EQ(
      1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":1,"CA":4294967295,"TO":300}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":1,"CA":4294967295,"TO":300,"ST":22}]}})",
            json);
  ASSERT_TRUE(m_Switch.WaitForReplies(1, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  const std::vector<CRecordingSwitch::CCall> replies = m_Switch.Replies();
  ASSERT_EQ(1u, replies.size());
  EXPECT_EQ(m_Module, replies[0].m_pSender);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":1,"CA":4294967295,"TO":300,"ST":0}]}})",
            replies[0].m_Json);
  EXPECT_EQ("zip data", ReadFile(Archive()));
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\nEM_KORVEX           : -> Initiate Korvex archive creation, may take several minutes "
       "(queue this request)",
       "\nEM_KORVEX           : Create Korvex archive, may take several minutes (async in "
       "TaskSerializer)",
       "\nEM_KORVEX (Create)  : Archive creation request, timeout=300 sec.",
       "\nEM_KORVEX (Create)  :   create Korvex process, command line: " + Root() + "Korvex",
       "\nEM_KORVEX (Create)  : Korvex process exit",
       "\nEM_KORVEX (Create)  : Korvex archive successfully created",
       "\nEM_KORVEX (Create)  :   file size = 0 kBytes"}));
}

TEST_F(PluginTest, ToolExiting0WithoutArchiveGives6) {
  WriteFile(Archive(), "previous run");
  WriteTool(m_Dir.Path(), "exit 0");
  ASSERT_NO_FATAL_FAILURE(ExpectCreateGives6(
      "\n\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process finished successfully, but "
      "archive not created!\n"));
  EXPECT_FALSE(Exists(Archive()));  // removed before the run
}

TEST_F(PluginTest, ToolExiting7Gives6AndTracesTheCode) {
  WriteTool(m_Dir.Path(), "exit 7");
  ASSERT_NO_FATAL_FAILURE(ExpectCreateGives6(
      "\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process was terminated unsuccessfully; "
      "process exit code = 0x07!"));
}

TEST_F(PluginTest, ToolExiting1IsReportedAsTerminationAtShutdown) {
  WriteTool(m_Dir.Path(), "exit 1");
  ASSERT_NO_FATAL_FAILURE(ExpectCreateGives6(
      "\nEM_KORVEX (Create)  : ## Korvex archive process was terminated because of module "
      "shutdown!"));
}

TEST_F(PluginTest, StopTerminatesALongRunningTool) {
  CFifo started(m_Dir / "started");
  ASSERT_TRUE(started.Valid());
  // The tool's id and its parent's (the supervisor, whose id the module
  // gets), from its stat line as this host numbers them.
  WriteTool(m_Dir.Path(), "read -r s < /proc/self/stat; set -- $s; echo $1 $4 > '" +
                              started.Path() + "'\nsleep 60\nexit 0");
  ASSERT_EQ(1, Start(&m_Switch));
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})"));
  std::string ids;
  ASSERT_TRUE(started.ReadLine(ids, kToolWaitMs));
  const long pid = std::stol(ids);
  const std::string pidText = ids.substr(ids.find(' ') + 1);
  ASSERT_TRUE(ProcessListed(pid));

  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(1, Stop());
  const auto elapsed = std::chrono::steady_clock::now() - before;
  // Stop waits 100 ms plus up to 2000 ms for the worker, which the tool
  // blocks, then terminates the tool and waits for its exit: about 2.1 s
  // plus the tool's exit, 2.5 s at most on an idle machine. The bound here
  // leaves room for a loaded 2-core machine with sanitizers; what it rules
  // out is a Stop that waits for the tool's 60 s.
  EXPECT_LT(elapsed, std::chrono::seconds(6));

  EXPECT_FALSE(ProcessListed(pid)) << "the tool is still there";
  // The tool's own children went with its process group.
  EXPECT_EQ(std::vector<long>{}, GroupMembersAfterExit(pid, 5000));
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\n### Stopping module EM_KORVEX ###\n", "\nCTaskSerializer     : TerminateSerialization!",
       "\nCTaskSerializer     :   terminated",
       "\nEM_KORVEX (Stop)    : -> Korvex archive creation in progress - terminate process (#" +
           pidText + ") and wait for exit...",
       "\nEM_KORVEX (Stop)    : Korvex process exit",
       "\n\n### Stop of module EM_KORVEX completed successfully ###"}));
  // The worker was cut off inside the tool's run; if it still lived to
  // answer, the answer is the failure status.
  for (const CRecordingSwitch::CCall& reply : m_Switch.Replies()) {
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":6}]}})", reply.m_Json);
  }
}

TEST_F(PluginTest, ForeignKorvexProcessGives5AndTheHeaderFlag) {
  CForeignTool foreign(m_Dir / "elsewhere");
  ASSERT_TRUE(foreign.WaitRunning(kToolWaitMs));
  WriteTool(m_Dir.Path(), "printf ran > '" + Root() + "ran'\nexit 0");
  std::string reply;
  ASSERT_NO_FATAL_FAILURE(
      RunForOneReply(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":3,"CA":4294967295}]}})", &reply));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":3,"CA":4294967295,"ST":5}],"C":true}})",
            reply);
  EXPECT_FALSE(Exists(Root() + "ran"));
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\n\nEM_KORVEX (Create)  : ## ERROR! Foreign Korvex process already running - cannot start "
       "another Korvex instance!"}));
}

TEST_F(PluginTest, SwitchShutdownNoticeMakesJobsFailWith6) {
  WriteFile(Archive(), "zip");
  WriteTool(m_Dir.Path(), "printf ran > '" + Root() + "ran'\nexit 0");
  ASSERT_EQ(1, Start(&m_Switch));
  EXPECT_EQ(0, m_Module->Notify(0x20000, nullptr, nullptr));
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})"));
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"DA":"f"}]}})"));
  ASSERT_TRUE(m_Switch.WaitForReplies(2, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  const std::vector<CRecordingSwitch::CCall> replies = m_Switch.Replies();
  ASSERT_EQ(2u, replies.size());
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":6}]}})", replies[0].m_Json);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"DA":"f","ST":6}]}})",
            replies[1].m_Json);
  EXPECT_TRUE(m_Switch.AsyncRequests().empty());
  EXPECT_FALSE(Exists(Root() + "ran"));
  EXPECT_EQ("zip", ReadFile(Archive()));
}

TEST_F(PluginTest, WithoutSwitchTheJobRunsButNobodyIsAnswered) {
  CFifo done(m_Dir / "done");
  ASSERT_TRUE(done.Valid());
  WriteTool(m_Dir.Path(), "printf zip > '" + Archive() + "'\necho done > '" + done.Path() + "'");
  ASSERT_EQ(1, Start(nullptr));
  std::string json;
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})", &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":22}]}})", json);
  std::string line;
  ASSERT_TRUE(done.ReadLine(line, kToolWaitMs));
  // Stop lets the worker finish the job it is in before it ends.
  EXPECT_EQ(1, Stop());
  EXPECT_EQ("zip", ReadFile(Archive()));
  EXPECT_TRUE(ContainsInOrder(halvane::TakeTrace(),
                              {"\nEM_KORVEX (Create)  : Korvex archive successfully created",
                               "\nCTaskSerializer     : EXIT THREAD TaskHandler()!"}));
  EXPECT_TRUE(m_Switch.Replies().empty());
}

TEST_F(PluginTest, TwentiethCreationRequestWithAFullQueueGets22AndIsNeverAnswered) {
  CFifo started(m_Dir / "started");
  CHold hold(m_Dir / "hold");
  ASSERT_TRUE(started.Valid());
  ASSERT_TRUE(hold.Valid());
  // The first run blocks until the test lets it go; later runs end at once.
  WriteTool(m_Dir.Path(), "if [ ! -e '" + Root() + "once' ]; then\n  : > '" + Root() +
                              "once'\n  echo $$ > '" + started.Path() + "'\n  read x < '" +
                              hold.Path() + "'\nfi\nexit 0");
  ASSERT_EQ(1, Start(&m_Switch));
  const auto request = [](int objectId) {
    return R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":)" + std::to_string(objectId) +
           R"(,"CA":4294967295}]}})";
  };
  std::string json;
  EXPECT_EQ(1, Request(request(100)));
  std::string line;
  ASSERT_TRUE(started.ReadLine(line, kToolWaitMs));  // the worker is busy now
  for (int i = 1; i <= 19; ++i) EXPECT_EQ(1, Request(request(i)));
  halvane::TakeTrace();
  EXPECT_EQ(1, Request(request(20), &json));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":20,"CA":4294967295,"ST":22}]}})", json);
  EXPECT_TRUE(
      ContainsInOrder(halvane::TakeTrace(),
                      {"\nCTaskSerializer     : ## ERROR! Task queue for priority 0 is full"}));
  ASSERT_TRUE(hold.Release());
  // The running one and the nineteen queued ones are answered, in order.
  ASSERT_TRUE(m_Switch.WaitForReplies(20, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  const std::vector<CRecordingSwitch::CCall> replies = m_Switch.Replies();
  ASSERT_EQ(20u, replies.size());
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":100,"CA":4294967295,"ST":6}]}})",
            replies[0].m_Json);
  for (int i = 1; i <= 19; ++i) {
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"OI":)" + std::to_string(i) +
                  R"(,"CA":4294967295,"ST":6}]}})",
              replies[static_cast<std::size_t>(i)].m_Json);
  }
}

// ----- archive transfer -----------------------------------------------------------------

TEST_F(PluginTest, TransferRequestAsTheSwitchReceivesItAndTheReply) {
  WriteFile(Archive(), "zip");
  WriteTool(m_Dir.Path(), "exit 0");
  m_Switch.SetAsyncAnswer([](SipJson& request) { request.SetStatus(0); });
  ASSERT_EQ(1, Start(&m_Switch));
  std::string json;
  EXPECT_EQ(
      1,
      Request(
          R"({"SIP":{"V":1,"CMD":[{"OC":13314,"OI":2,"MI":196612,"CA":4294967295,"TO":30,"DA":"bmc.zip"}]}})",
          &json));
  EXPECT_EQ(
      R"({"SIP":{"V":1,"CMD":[{"OC":13314,"OI":2,"MI":196612,"CA":4294967295,"TO":30,"DA":"bmc.zip","ST":22}]}})",
      json);
  ASSERT_TRUE(m_Switch.WaitForReplies(1, kReplyWaitMs));
  EXPECT_EQ(1, Stop());

  const std::vector<CRecordingSwitch::CCall> sent = m_Switch.AsyncRequests();
  ASSERT_EQ(1u, sent.size());
  EXPECT_EQ(m_Module, sent[0].m_pSender);
  EXPECT_EQ(5000u, sent[0].m_Timeout);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":61522,"TO":29,"DA":{"FileType":2,"LocalFilePath":")" +
                Archive() + R"(","BmcFilePath":"bmc.zip"}}]}})",
            sent[0].m_Json);

  const std::vector<CRecordingSwitch::CCall> replies = m_Switch.Replies();
  ASSERT_EQ(1u, replies.size());
  EXPECT_EQ(m_Module, replies[0].m_pSender);
  EXPECT_EQ(
      R"({"SIP":{"V":1,"CMD":[{"OC":13314,"OI":2,"MI":196612,"CA":4294967295,"TO":30,"ST":0}]}})",
      replies[0].m_Json);
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\nEM_KORVEX           : -> Initiate Korvex archive transfer to BMC",
       "\nEM_KORVEX           : Transfer Korvex archive to BMC (async in TaskSerializer)",
       "\nEM_KORVEX (Transfer): Transfer archive to BMC, timeout=30 sec.",
       "\nEM_KORVEX (Transfer):   ...BMC local name = \"bmc.zip\"",
       "\nEM_KORVEX (Transfer): Sending Korvex archive transfer down to HTI module "
       "(AsyncRequest)...",
       "\nEM_KORVEX (Transfer):   local file: " + Archive(),
       "\nEM_KORVEX (Transfer):   BMC file:   bmc.zip",
       "\nEM_KORVEX (Transfer):   file type:  2 (Korvex)",
       "\nEM_KORVEX (Transfer):   timeout:    29 sec.",
       "\nEM_KORVEX (Transfer): Korvex archive transfer finished, cmd status = 0x00"}));
}

TEST_F(PluginTest, TransferNameFromARawByteBlock) {
  WriteFile(Archive(), "zip");
  WriteTool(m_Dir.Path(), "exit 0");
  m_Switch.SetAsyncAnswer([](SipJson& request) { request.SetStatus(4); });
  ASSERT_EQ(1, Start(&m_Switch));
  EXPECT_EQ(
      1,
      Request(
          R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":1,"DA":{"RAW":[107,46,122,0,33]}}]}})"));
  ASSERT_TRUE(m_Switch.WaitForReplies(1, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  ASSERT_EQ(1u, m_Switch.AsyncRequests().size());
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":61522,"TO":1,"DA":{"FileType":2,"LocalFilePath":")" +
                Archive() + R"(","BmcFilePath":"k.z"}}]}})",
            m_Switch.AsyncRequests()[0].m_Json);
  // The HTI module's status is passed on, "DA" is gone.
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":1,"ST":4}]}})",
            m_Switch.Replies()[0].m_Json);
}

TEST_F(PluginTest, TransferWhoseAnswerCarriesNoStatusIsAnsweredWith22) {
  WriteFile(Archive(), "zip");
  WriteTool(m_Dir.Path(), "exit 0");
  ASSERT_EQ(1, Start(&m_Switch));  // the recording switch writes no status by default
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295}]}})"));
  ASSERT_TRUE(m_Switch.WaitForReplies(1, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  ASSERT_EQ(1u, m_Switch.AsyncRequests().size());
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":61522,"DA":{"FileType":2,"LocalFilePath":")" + Archive() +
                R"(","BmcFilePath":""}}]}})",
            m_Switch.AsyncRequests()[0].m_Json);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"ST":22}]}})",
            m_Switch.Replies()[0].m_Json);
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\nEM_KORVEX (Transfer): Korvex archive transfer finished, cmd status = 0x16"}));
}

TEST_F(PluginTest, TransferWithoutArchiveIsAnsweredWith3) {
  WriteTool(m_Dir.Path(), "exit 0");
  ASSERT_EQ(1, Start(&m_Switch));
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":30,"DA":"x"}]}})"));
  ASSERT_TRUE(m_Switch.WaitForReplies(1, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  EXPECT_TRUE(m_Switch.AsyncRequests().empty());
  ASSERT_EQ(1u, m_Switch.Replies().size());
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"TO":30,"DA":"x","ST":3}]}})",
            m_Switch.Replies()[0].m_Json);
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\n\nEM_KORVEX (Transfer): ## ERROR! Korvex archive does not exist - cannot transfer "
       "file!\n"}));
}

TEST_F(PluginTest, CreationThenTransferRunInOrder) {
  WriteTool(m_Dir.Path(), "printf zip > '" + Archive() + "'\nexit 0");
  m_Switch.SetAsyncAnswer([](SipJson& request) { request.SetStatus(0); });
  ASSERT_EQ(1, Start(&m_Switch));
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})"));
  EXPECT_EQ(1, Request(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"DA":"a.zip"}]}})"));
  ASSERT_TRUE(m_Switch.WaitForReplies(2, kReplyWaitMs));
  EXPECT_EQ(1, Stop());
  const std::vector<CRecordingSwitch::CCall> replies = m_Switch.Replies();
  ASSERT_EQ(2u, replies.size());
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":0}]}})", replies[0].m_Json);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":4294967295,"ST":0}]}})", replies[1].m_Json);
}
