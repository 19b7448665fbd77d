// End-to-end tests of em-host: the real binary, the real module library,
// real child processes (fake Korvex tools written into a temporary tool
// root, and the demo tool), driven through pipes.
#include "frame/HostServices.h"
#include "host/emhost/bmc/Sha256.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Processes.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Scratch directories, files, child processes and process state.
using namespace korvex_test;

const std::string kEmHost = EMHOST_BIN;
const std::string kDemoTool = EMHOST_DEMO_TOOL;

// Waits up to timeoutMs for path to exist with some content.
bool WaitForFile(const std::string& path, int timeoutMs, CChildProcess* pump = nullptr) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (!ReadFile(path).empty()) return true;
    if (pump != nullptr) {
      pump->Pump(50);
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
  return false;
}

// line is before + a duration "<digits>.<digit> s" + after.
bool WithSeconds(const std::string& line, const std::string& before, const std::string& after) {
  if (line.size() < before.size() + after.size() + 5 ||
      line.compare(0, before.size(), before) != 0 ||
      line.compare(line.size() - after.size(), after.size(), after) != 0) {
    return false;
  }
  const std::string middle = line.substr(before.size(), line.size() - before.size() - after.size());
  const std::size_t dot = middle.find('.');
  if (dot == 0 || dot == std::string::npos || middle.size() != dot + 4 ||
      middle.compare(dot + 2, 2, " s") != 0 ||
      !std::isdigit(static_cast<unsigned char>(middle[dot + 1]))) {
    return false;
  }
  for (std::size_t i = 0; i < dot; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(middle[i]))) return false;
  }
  return true;
}

// The lines must appear in this order (not necessarily next to each other).
void ExpectInOrder(const std::vector<std::string>& lines, const std::vector<std::string>& order) {
  std::size_t from = 0;
  for (const std::string& wanted : order) {
    const auto found = std::find(lines.begin() + static_cast<long>(from), lines.end(), wanted);
    ASSERT_NE(found, lines.end()) << "missing or out of order: " << wanted;
    from = static_cast<std::size_t>(found - lines.begin()) + 1;
  }
}

// The same lines, in any order.
void ExpectSameLines(std::vector<std::string> lines, std::vector<std::string> expected) {
  std::sort(lines.begin(), lines.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(lines, expected);
}

// ----- messages -------------------------------------------------------------------

const std::string kQuery = R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":0}]}})";
const std::string kCreate = R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30}]}})";

std::string Transfer(const std::string& name) {
  return R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"DA":")" + name + R"("}]}})";
}

std::string RequestLine(const std::string& id, const std::string& message) {
  return R"({"id":)" + id + R"(,"request":)" + message + "}\n";
}

std::string Ack(const std::string& id, int result, const std::string& message) {
  return R"({"id":)" + id + R"(,"event":"ack","result":)" + std::to_string(result) +
         R"(,"message":)" + message + "}";
}

std::string Reply(const std::string& id, const std::string& message) {
  return R"({"id":)" + id + R"(,"event":"reply","message":)" + message + "}";
}

std::string Control(const std::string& id, const std::string& name, long long result) {
  return R"({"id":)" + id + R"(,"event":"control","control":")" + name + R"(","result":)" +
         std::to_string(result) + "}";
}

std::string Error(int line, const std::string& text) {
  return R"({"event":"error","line":)" + std::to_string(line) + R"(,"error":")" + text + "\"}";
}

std::string WaitLine(const std::string& id, int timeoutMs = 20000) {
  return R"({"id":)" + id + R"(,"control":"wait","timeout_ms":)" + std::to_string(timeoutMs) +
         "}\n";
}

const std::string kQueryInstalled = R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":0,"ST":0,"DA":1}]}})";
const std::string kQueryNotInstalled =
    R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":0,"ST":0,"DA":0}]}})";

std::string CreateStatus(unsigned int status) {
  return R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30,"ST":)" + std::to_string(status) +
         "}]}}";
}

std::string TransferAck(const std::string& name) {
  return R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"DA":")" + name + R"(","ST":22}]}})";
}

// The transfer's answer: "DA" removed (the last member takes its place),
// then the status written.
std::string TransferDone(unsigned int status) {
  return R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"ST":)" + std::to_string(status) +
         "}]}}";
}

// ----- fake tools -----------------------------------------------------------------

const char kToolWritesArchive[] =
    "cd \"$(dirname \"$0\")\" && printf 'PK-demo' > Korvex_Data.zip\n";
const char kToolFails[] = "exit 3\n";
const char kToolNoArchive[] = "exit 0\n";
// Records its own pid and its child's, then runs until it is ended.
const char kToolSleeps[] =
    "cd \"$(dirname \"$0\")\"\n"
    "sh -c 'read -r s < /proc/self/stat; echo ${s%% *} > sleep.pid; exec sleep 60' &\n"
    "read -r s < /proc/self/stat; echo ${s%% *} > tool.pid\n"
    "wait\n";

class EmHostEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    m_Dir = m_Temp.Path();
    m_Root = m_Dir + "/tool";
    m_Bmc = m_Dir + "/bmc";
    ASSERT_EQ(::mkdir(m_Root.c_str(), 0755), 0);
    // These tests hold the korvex_process lock against each other, but a
    // shared machine may run someone else's "Korvex"; the module would then
    // rightly answer 5. Such runs are short: wait a little, then skip.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    unsigned int foreign = 0;
    while (CProcess::FindProcess(foreign, "Korvex")) {
      if (std::chrono::steady_clock::now() > deadline) {
        GTEST_SKIP() << "a process named Korvex that is not ours runs (pid " << foreign << ")";
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }

  // Installs a fake Korvex tool: a bash script, so that its process name is
  // "Korvex" while it runs.
  void Tool(const std::string& body) {
    WriteFile(m_Root + "/Korvex", "#!/bin/bash\n" + body, 0755);
  }
  void Archive(const std::string& content = "PK-archive") {
    WriteFile(m_Root + "/Korvex_Data.zip", content);
  }

  std::vector<std::string> Args(const std::vector<std::string>& more) const {
    std::vector<std::string> args = {kEmHost, "--tool-root", m_Root, "--bmc-dir", m_Bmc};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }
  CFinished EmHost(const std::vector<std::string>& more, const std::string& input = "") {
    return RunProgram(Args(more), input);
  }
  // A serve session: the whole input, then the output lines.
  std::vector<std::string> Serve(const std::string& input,
                                 const std::vector<std::string>& options = {}) {
    std::vector<std::string> more = options;
    more.push_back("serve");
    const CFinished finished = EmHost(more, input);
    EXPECT_EQ(finished.m_Exit, 0) << finished.m_Err;
    EXPECT_EQ(finished.m_Err, "");
    return Lines(finished.m_Out);
  }
  std::string TransferEvent(const std::string& name) const {
    return R"({"event":"transfer","message":{"SIP":{"V":1,"CMD":[{"OC":61522,"TO":29,"DA":{"FileType":2,"LocalFilePath":")" +
           m_Root + R"(/Korvex_Data.zip","BmcFilePath":")" + name + R"("}}]}}})";
  }

  korvex_test::CTempDir m_Temp{"emhost-e2e"};
  std::string m_Dir;
  std::string m_Root;
  std::string m_Bmc;
};

// A process named "Korvex" that is not ours: the module must refuse to run
// a second tool while it lives.
class CForeignKorvex {
 public:
  explicit CForeignKorvex(const std::string& dir) {
    ::mkdir(dir.c_str(), 0755);
    WriteFile(dir + "/Korvex", "#!/bin/bash\ntrap 'kill $!; exit 0' TERM\nsleep 60 &\nwait\n",
              0755);
    m_Process.reset(new CChildProcess({dir + "/Korvex"}));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (ReadFile("/proc/" + std::to_string(m_Process->Pid()) + "/comm") != "Korvex\n" &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~CForeignKorvex() {
    ::kill(m_Process->Pid(), SIGTERM);
    m_Process->Finish(10);
  }

 private:
  std::unique_ptr<CChildProcess> m_Process;
};

}  // namespace

// ----- the main job ---------------------------------------------------------------

TEST_F(EmHostEndToEnd, CollectWithTheDemoToolDeliversAVerifiedArchive) {
  WriteFile(m_Root + "/Korvex", ReadFile(kDemoTool), 0755);
  const CFinished run = EmHost({"collect", "demo.zip"});
  ASSERT_EQ(run.m_Exit, 0) << run.m_Out << run.m_Err;
  EXPECT_EQ(run.m_Err, "");

  const std::string stored = m_Bmc + "/demo.zip";
  EXPECT_EQ(Entries(m_Bmc), (std::set<std::string>{"demo.zip", "demo.zip.sha256"}));
  std::string hex;
  ASSERT_TRUE(Sha256OfFile(stored, hex, nullptr));
  EXPECT_EQ(ReadFile(stored + ".sha256"), hex + "  demo.zip\n");
  EXPECT_EQ(ReadFile(stored), ReadFile(m_Root + "/Korvex_Data.zip"));
  struct stat info {};
  ASSERT_EQ(::stat(stored.c_str(), &info), 0);
  const std::string size = std::to_string(info.st_size);

  const std::vector<std::string> lines = Lines(run.m_Out);
  ASSERT_EQ(lines.size(), 8u) << run.m_Out;
  EXPECT_EQ(lines[0], "collect: creating the Korvex archive");
  EXPECT_TRUE(WithSeconds(lines[1], "collect: archive creation finished after ", "")) << lines[1];
  EXPECT_EQ(lines[2], "collect: transferring the archive to the BMC as demo.zip");
  EXPECT_TRUE(WithSeconds(lines[3], "collect: transfer finished after ", ", status 0")) << lines[3];
  EXPECT_EQ(lines[4], "archive:     " + m_Root + "/Korvex_Data.zip (" + size + " bytes)");
  EXPECT_EQ(lines[5], "destination: " + stored + " (" + size + " bytes)");
  EXPECT_EQ(lines[6], "sha256:      " + hex);
  EXPECT_TRUE(WithSeconds(lines[7], "duration:    ", "")) << lines[7];

  // What arrived is a valid zip with the machine's facts, and the checksum
  // file is what sha256sum -c reads.
  const CFinished unzip = RunProgram({"/usr/bin/unzip", "-t", stored});
  EXPECT_EQ(unzip.m_Exit, 0) << unzip.m_Out;
  EXPECT_NE(unzip.m_Out.find("Korvex_Data/meminfo.txt"), std::string::npos);
  EXPECT_NE(unzip.m_Out.find("Korvex_Data/uname.txt"), std::string::npos);
  const CFinished check =
      RunProgram({"/bin/sh", "-c", "cd '" + m_Bmc + "' && sha256sum -c demo.zip.sha256"});
  EXPECT_EQ(check.m_Exit, 0) << check.m_Err;
  EXPECT_EQ(check.m_Out, "demo.zip: OK\n");
}

// ----- serve: every status ------------------------------------------------------------

TEST_F(EmHostEndToEnd, ServeQueryCreateAndTransferSucceed) {
  Tool(kToolWritesArchive);
  const std::vector<std::string> lines =
      Serve(RequestLine("1", kQuery) + RequestLine("2", kCreate) + WaitLine("3") +
            RequestLine("4", Transfer("t.zip")) + WaitLine("5"));
  ExpectSameLines(lines, {Ack("1", 1, kQueryInstalled), Ack("2", 1, CreateStatus(22)),
                          Reply("2", CreateStatus(0)), Control("3", "wait", 1),
                          Ack("4", 1, TransferAck("t.zip")), TransferEvent("t.zip"),
                          Reply("4", TransferDone(0)), Control("5", "wait", 1)});
  ExpectInOrder(lines, {Ack("1", 1, kQueryInstalled), Ack("2", 1, CreateStatus(22)),
                        Reply("2", CreateStatus(0)), Control("3", "wait", 1),
                        Ack("4", 1, TransferAck("t.zip")), Reply("4", TransferDone(0)),
                        Control("5", "wait", 1)});
  ExpectInOrder(lines, {TransferEvent("t.zip"), Reply("4", TransferDone(0))});
  EXPECT_EQ(ReadFile(m_Bmc + "/t.zip"), "PK-demo");
  std::string hex;
  ASSERT_TRUE(Sha256OfFile(m_Bmc + "/t.zip", hex, nullptr));
  EXPECT_EQ(ReadFile(m_Bmc + "/t.zip.sha256"), hex + "  t.zip\n");
}

TEST_F(EmHostEndToEnd, ServeUnhandledOpcodesAnswerStatusOne) {
  Tool(kToolWritesArchive);
  const std::string family = R"({"SIP":{"V":1,"CMD":[{"OC":13317,"CA":0}]}})";
  const std::string foreign = R"({"SIP":{"V":1,"CMD":[{"OC":4660,"CA":0}]}})";
  EXPECT_EQ(Serve(RequestLine("1", family) + RequestLine("2", foreign)),
            (std::vector<std::string>{
                Ack("1", 0, R"({"SIP":{"V":1,"CMD":[{"OC":13317,"CA":0,"ST":1}]}})"),
                Ack("2", 0, R"({"SIP":{"V":1,"CMD":[{"OC":4660,"CA":0,"ST":1}]}})")}));
}

TEST_F(EmHostEndToEnd, ServeTransferWithoutArchiveAnswersStatusThree) {
  Tool(kToolWritesArchive);
  // Refused before the request for the BMC is built: the answer keeps "DA".
  EXPECT_EQ(
      Serve(RequestLine("1", Transfer("t.zip")) + WaitLine("2")),
      (std::vector<std::string>{
          Ack("1", 1, TransferAck("t.zip")),
          Reply("1", R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"DA":"t.zip","ST":3}]}})"),
          Control("2", "wait", 1)}));
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

TEST_F(EmHostEndToEnd, ServeCreateWhileAnotherKorvexRunsAnswersStatusFive) {
  Tool(kToolWritesArchive);
  Archive("old");
  CForeignKorvex foreign(m_Dir + "/elsewhere");
  EXPECT_EQ(
      Serve(RequestLine("1", kCreate) + WaitLine("2")),
      (std::vector<std::string>{
          Ack("1", 1, CreateStatus(22)),
          Reply("1", R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30,"ST":5}],"C":true}})"),
          Control("2", "wait", 1)}));
  // The module deletes the old archive before it looks for a running tool.
  EXPECT_FALSE(Exists(m_Root + "/Korvex_Data.zip"));
}

TEST_F(EmHostEndToEnd, ServeFailingToolAnswersStatusSix) {
  Tool(kToolFails);
  EXPECT_EQ(Serve(RequestLine("1", kCreate) + WaitLine("2")),
            (std::vector<std::string>{Ack("1", 1, CreateStatus(22)), Reply("1", CreateStatus(6)),
                                      Control("2", "wait", 1)}));
}

TEST_F(EmHostEndToEnd, ServeToolWithoutArchiveAnswersStatusSix) {
  Tool(kToolNoArchive);
  EXPECT_EQ(Serve(RequestLine("1", kCreate) + WaitLine("2")),
            (std::vector<std::string>{Ack("1", 1, CreateStatus(22)), Reply("1", CreateStatus(6)),
                                      Control("2", "wait", 1)}));
}

TEST_F(EmHostEndToEnd, ServeSwitchShutdownNoticeMakesJobsAnswerStatusSix) {
  Tool(kToolWritesArchive);
  Archive();
  const std::vector<std::string> lines = Serve(R"({"id":1,"control":"notify","code":131072})"
                                               "\n" +
                                               RequestLine("2", kCreate) + WaitLine("3") +
                                               RequestLine("4", Transfer("t.zip")) + WaitLine("5"));
  EXPECT_EQ(
      lines,
      (std::vector<std::string>{
          Control("1", "notify", 0), Ack("2", 1, CreateStatus(22)), Reply("2", CreateStatus(6)),
          Control("3", "wait", 1), Ack("4", 1, TransferAck("t.zip")),
          // Refused before "DA" is looked at: the answer keeps it.
          Reply("4", R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"DA":"t.zip","ST":6}]}})"),
          Control("5", "wait", 1)}));
  // Nothing ran: the old archive is still there, nothing reached the BMC.
  EXPECT_EQ(ReadFile(m_Root + "/Korvex_Data.zip"), "PK-archive");
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

TEST_F(EmHostEndToEnd, ServeOtherCabinetAnswersStatusTwenty) {
  Tool(kToolWritesArchive);
  const std::string other = R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":7,"TO":30}]}})";
  const std::string all = R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295}]}})";
  EXPECT_EQ(
      Serve(RequestLine("1", other) + RequestLine("2", all) + WaitLine("3", 500)),
      (std::vector<std::string>{
          Ack("1", 0, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":7,"TO":30,"ST":20}]}})"),
          Ack("2", 1, R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":4294967295,"ST":0,"DA":1}]}})"),
          // Refused requests are not waited for.
          Control("3", "wait", 1)}));
}

TEST_F(EmHostEndToEnd, ServeQueuedRequestsAreAcknowledgedWithStatusTwentyTwo) {
  // Status 22 on its own: after a stop the module still acknowledges a
  // creation request with 22 but never answers it, and wait says so.
  Tool(kToolWritesArchive);
  EXPECT_EQ(Serve(R"({"id":1,"control":"stop"})"
                  "\n" +
                  RequestLine("2", kCreate) + WaitLine("3", 300)),
            (std::vector<std::string>{Control("1", "stop", 1), Ack("2", 1, CreateStatus(22)),
                                      Control("3", "wait", 0)}));
  EXPECT_FALSE(Exists(m_Root + "/Korvex_Data.zip"));
}

// Status 13 (an exception inside ModuleRequest) cannot be reached through
// em-host: the module's message readers are tolerant of every shape of
// input (strings for numbers, a missing or malformed envelope), and the
// line limits keep the deep copy within bounds. The closest is checked
// here: malformed messages are taken without an exception.
TEST_F(EmHostEndToEnd, ServeMalformedMessagesAreHandledWithoutException) {
  Tool(kToolWritesArchive);
  EXPECT_EQ(
      Serve(RequestLine("1", R"({"SIP":{"V":1,"CMD":{"OC":13312}}})") + RequestLine("2", R"({})") +
            RequestLine("3", R"({"SIP":{"V":1,"CMD":[{"OC":"x","CA":"y"}]}})")),
      (std::vector<std::string>{
          Ack("1", 0, R"({"SIP":{"V":1,"CMD":{"OC":13312}}})"), Ack("2", 0, "{}"),
          Ack("3", 0, R"({"SIP":{"V":1,"CMD":[{"OC":"x","CA":"y","ST":1}]}})")}));
}

TEST_F(EmHostEndToEnd, ServeIndexSelectsTheCurrentCommand) {
  Tool(kToolWritesArchive);
  const std::string two = R"({"SIP":{"V":1,"CMD":[{"OC":4660},{"OC":13312,"CA":0}]}})";
  EXPECT_EQ(
      Serve(R"({"id":1,"request":)" + two + R"(,"index":1})" + "\n"),
      (std::vector<std::string>{Ack(
          "1", 1, R"({"SIP":{"V":1,"CMD":[{"OC":4660},{"OC":13312,"CA":0,"ST":0,"DA":1}]}})")}));
}

// ----- serve: the BMC stand-in -----------------------------------------------------------

TEST_F(EmHostEndToEnd, ServeRefusesBmcNamesThatLeaveTheDirectory) {
  Tool(kToolWritesArchive);
  Archive();
  const std::string noName = R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30}]}})";
  std::string input = RequestLine("0", noName) + WaitLine("\"w0\"");
  const std::vector<std::string> names = {"/etc/k.zip", "../k.zip", "a/k.zip", "a..b"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string id = std::to_string(i + 1);
    input += RequestLine(id, Transfer(names[i])) + WaitLine("\"w" + id + "\"");
  }
  const std::vector<std::string> lines = Serve(input);
  std::vector<std::string> expected = {
      Ack("0", 1, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"ST":22}]}})"),
      TransferEvent(""), Reply("0", TransferDone(8)), Control("\"w0\"", "wait", 1)};
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string id = std::to_string(i + 1);
    expected.push_back(Ack(id, 1, TransferAck(names[i])));
    expected.push_back(TransferEvent(names[i]));
    expected.push_back(Reply(id, TransferDone(8)));
    expected.push_back(Control("\"w" + id + "\"", "wait", 1));
    ExpectInOrder(lines, {TransferEvent(names[i]), Reply(id, TransferDone(8)),
                          Control("\"w" + id + "\"", "wait", 1)});
  }
  ExpectSameLines(lines, expected);
  EXPECT_TRUE(Entries(m_Bmc).empty());
  EXPECT_FALSE(Exists(m_Dir + "/k.zip"));
}

TEST_F(EmHostEndToEnd, ServeHtiStatusModeAnswersTheGivenStatus) {
  Tool(kToolWritesArchive);
  Archive();
  const std::vector<std::string> lines =
      Serve(RequestLine("1", Transfer("t.zip")) + WaitLine("2"), {"--hti", "status:7"});
  ExpectSameLines(lines, {Ack("1", 1, TransferAck("t.zip")), TransferEvent("t.zip"),
                          Reply("1", TransferDone(7)), Control("2", "wait", 1)});
  ExpectInOrder(lines,
                {TransferEvent("t.zip"), Reply("1", TransferDone(7)), Control("2", "wait", 1)});
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

TEST_F(EmHostEndToEnd, ServeHtiSilentModeLeavesStatusTwentyTwo) {
  Tool(kToolWritesArchive);
  Archive();
  const std::vector<std::string> lines =
      Serve(RequestLine("1", Transfer("t.zip")) + WaitLine("2"), {"--hti", "silent"});
  ExpectSameLines(lines, {Ack("1", 1, TransferAck("t.zip")), TransferEvent("t.zip"),
                          Reply("1", TransferDone(22)), Control("2", "wait", 1)});
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

TEST_F(EmHostEndToEnd, ServeHtiAbsentModeReachesNoModule) {
  Tool(kToolWritesArchive);
  Archive();
  EXPECT_EQ(Serve(RequestLine("1", Transfer("t.zip")) + WaitLine("2"), {"--hti", "absent"}),
            (std::vector<std::string>{Ack("1", 1, TransferAck("t.zip")),
                                      Reply("1", TransferDone(22)), Control("2", "wait", 1)}));
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

// ----- serve: the line protocol ------------------------------------------------------------

TEST_F(EmHostEndToEnd, ServeMalformedLineGivesAnErrorAndTheSessionGoesOn) {
  Tool(kToolWritesArchive);
  EXPECT_EQ(Serve(RequestLine("1", kQuery) + "{not json\n" + RequestLine("2", kQuery)),
            (std::vector<std::string>{
                Ack("1", 1, kQueryInstalled),
                Error(2, "JSON parse error at offset 1: Missing a name for object member."),
                Ack("2", 1, kQueryInstalled)}));
}

TEST_F(EmHostEndToEnd, ServeRefusesLinesOfUnknownForm) {
  Tool(kToolWritesArchive);
  const std::string input =
      "[1,2]\n"
      R"({"id":1})"
      "\n"
      R"({"id":1,"request":{},"control":"quit"})"
      "\n"
      R"({"id":1,"request":"x"})"
      "\n"
      R"({"id":1,"request":{},"index":-1})"
      "\n"
      R"({"id":1,"request":{},"index":1024})"
      "\n"
      R"({"id":1,"control":"dance"})"
      "\n"
      R"({"id":1,"control":"notify"})"
      "\n"
      R"({"id":1,"control":"cabinet","nr":"3"})"
      "\n"
      R"({"id":1,"control":7})"
      "\n"
      "   \n"
      R"({"id":{"any":[1,"x"]},"control":"cabinet","nr":0})"
      "\n";
  EXPECT_EQ(
      Serve(input),
      (std::vector<std::string>{
          Error(1, "a line must be a JSON object"),
          Error(2, R"(a line needs \"request\" or \"control\")"),
          Error(3, R"(a line holds \"request\" or \"control\", not both)"),
          Error(4, R"(\"request\" must be a JSON object (a SIP message))"),
          Error(5, R"(\"index\" must be an integer from 0 to 1023)"),
          Error(6, R"(\"index\" must be an integer from 0 to 1023)"),
          Error(7,
                R"(unknown control \"dance\" (start, stop, notify, cabinet, setup, wait, quit))"),
          Error(8, R"(control notify needs \"code\" (an unsigned 32-bit number))"),
          Error(9, R"(control cabinet: \"nr\" must be an unsigned 32-bit number)"),
          Error(10, R"(\"control\" must be a string)"),
          Control(R"({"any":[1,"x"]})", "cabinet", 1)}));
}

TEST_F(EmHostEndToEnd, ServeRefusesLinesNestedDeeperThanThirtyTwoLevels) {
  Tool(kToolWritesArchive);
  // The line itself is level 1; "request", "SIP", "CMD" and the command
  // take levels 2 to 5, so 27 arrays reach level 32 and 28 go beyond it.
  auto nested = [](int arrays) {
    return std::string(static_cast<std::size_t>(arrays), '[') +
           std::string(static_cast<std::size_t>(arrays), ']');
  };
  const std::string deep32 =
      R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30,"X":)" + nested(27) + "}]}}";
  const std::string deep33 =
      R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30,"X":)" + nested(28) + "}]}}";
  const std::string line33 = RequestLine("2", deep33);
  // The error names the offset of the bracket that opens level 33.
  const std::size_t offset = line33.find(std::string(28, '[')) + 27;
  const std::string ack32 =
      R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30,"X":)" + nested(27) + R"(,"ST":22}]}})";
  const std::string reply32 =
      R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30,"X":)" + nested(27) + R"(,"ST":0}]}})";
  EXPECT_EQ(Serve(RequestLine("1", deep32) + WaitLine("\"w\"") + line33 + RequestLine("3", kQuery)),
            (std::vector<std::string>{
                Ack("1", 1, ack32), Reply("1", reply32), Control("\"w\"", "wait", 1),
                Error(3, "JSON nested deeper than 32 levels at offset " + std::to_string(offset)),
                Ack("3", 1, kQueryInstalled)}));
}

TEST_F(EmHostEndToEnd, ServeRefusesLinesLongerThanOneMebibyte) {
  Tool(kToolWritesArchive);
  const std::size_t limit = 1u << 20;
  // A valid line of exactly 1 MiB is taken; one byte more is refused.
  const std::string head = R"({"id":1,"pad":")";
  const std::string tail = R"(","request":)" + kQuery + "}";
  const std::string exact = head + std::string(limit - head.size() - tail.size(), 'p') + tail;
  ASSERT_EQ(exact.size(), limit);
  const std::string tooLong = head + std::string(limit + 1 - head.size() - tail.size(), 'p') + tail;
  EXPECT_EQ(Serve(exact + "\n" + tooLong + "\n" + RequestLine("3", kQuery)),
            (std::vector<std::string>{Ack("1", 1, kQueryInstalled),
                                      Error(2, "line longer than 1048576 bytes"),
                                      Ack("3", 1, kQueryInstalled)}));
}

TEST_F(EmHostEndToEnd, ServeControlsReportTheModulesResults) {
  Tool(kToolWritesArchive);
  const std::string cabinetFive = R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":5}]}})";
  const std::string input = RequestLine("1", kQuery) +
                            R"({"id":2,"control":"start"})"
                            "\n" +
                            RequestLine("3", kQuery) +
                            R"({"id":4,"control":"cabinet","nr":5})"
                            "\n" +
                            RequestLine("5", kQuery) + RequestLine("6", cabinetFive) +
                            R"({"id":7,"control":"setup","action":3})"
                            "\n"
                            R"({"id":8,"control":"notify","code":1})"
                            "\n"
                            R"({"id":9,"control":"stop"})"
                            "\n"
                            R"({"id":10,"control":"quit"})"
                            "\n" +
                            RequestLine("11", kQuery);
  EXPECT_EQ(Serve(input, {"--no-start"}),
            (std::vector<std::string>{
                // Not started: the module has not looked for the tool yet.
                Ack("1", 1, kQueryNotInstalled), Control("2", "start", 1),
                Ack("3", 1, kQueryInstalled), Control("4", "cabinet", 1),
                Ack("5", 0, R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":0,"ST":20}]}})"),
                Ack("6", 1, R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":5,"ST":0,"DA":1}]}})"),
                Control("7", "setup", 0), Control("8", "notify", 0), Control("9", "stop", 1),
                // Nothing after quit is read.
                Control("10", "quit", 1)}));
}

TEST_F(EmHostEndToEnd, ServeStartReportsAMissingTool) {
  EXPECT_EQ(Serve(R"({"id":1,"control":"start"})"
                  "\n" +
                  RequestLine("2", kQuery)),
            (std::vector<std::string>{Control("1", "start", 0), Ack("2", 1, kQueryNotInstalled)}));
}

// ----- commands ----------------------------------------------------------------------

TEST_F(EmHostEndToEnd, QueryExitStatusTellsWhetherKorvexIsInstalled) {
  const CFinished missing = EmHost({"query"});
  EXPECT_EQ(missing.m_Exit, 1);
  EXPECT_EQ(missing.m_Out, "not installed\n");
  EXPECT_EQ(missing.m_Err, "");
  Tool(kToolWritesArchive);
  const CFinished present = EmHost({"query"});
  EXPECT_EQ(present.m_Exit, 0);
  EXPECT_EQ(present.m_Out, "installed\n");
  EXPECT_EQ(present.m_Err, "");
  const CFinished unconfigured = RunProgram({kEmHost, "query"});
  EXPECT_EQ(unconfigured.m_Exit, 1);
  EXPECT_EQ(unconfigured.m_Out, "not installed\n");
  EXPECT_EQ(unconfigured.m_Err,
            "em-host: no Korvex installation root is configured (use --tool-root or --registry)\n");
}

TEST_F(EmHostEndToEnd, RegistryFileNamesTheToolRoot) {
  Tool(kToolWritesArchive);
  const std::string file = m_Dir + "/registry.conf";
  WriteFile(file, "[SOFTWARE\\Halvane\\Korvex\\Setup]\nFileRoot = " + m_Root + "\n");
  const CFinished run = RunProgram({kEmHost, "--registry", file, "query"});
  EXPECT_EQ(run.m_Exit, 0) << run.m_Err;
  EXPECT_EQ(run.m_Out, "installed\n");
  WriteFile(file, "[SOFTWARE\\Halvane\\Korvex\\Setup\nFileRoot = x\n");
  const CFinished bad = RunProgram({kEmHost, "--registry", file, "query"});
  EXPECT_EQ(bad.m_Exit, 3);
  EXPECT_EQ(bad.m_Out, "");
  EXPECT_EQ(bad.m_Err, "em-host: cannot load the configuration store: " + file +
                           ":1: missing \"]\" after key path\n");
}

TEST_F(EmHostEndToEnd, CreateReportsTheArchive) {
  Tool(kToolWritesArchive);
  const CFinished run = EmHost({"create"});
  ASSERT_EQ(run.m_Exit, 0) << run.m_Err;
  EXPECT_EQ(run.m_Err, "");
  const std::vector<std::string> lines = Lines(run.m_Out);
  ASSERT_EQ(lines.size(), 4u) << run.m_Out;
  EXPECT_EQ(lines[0], "create: creating the Korvex archive");
  EXPECT_TRUE(WithSeconds(lines[1], "create: archive creation finished after ", ""));
  EXPECT_EQ(lines[2], "archive:  " + m_Root + "/Korvex_Data.zip (7 bytes)");
  EXPECT_TRUE(WithSeconds(lines[3], "duration: ", "")) << lines[3];
}

TEST_F(EmHostEndToEnd, CreateFailureNamesTheStatusAndItsMeaning) {
  Tool(kToolFails);
  const CFinished run = EmHost({"create"});
  EXPECT_EQ(run.m_Exit, 1);
  // How the tool ended, and where its output is: it printed nothing, so the
  // log's last lines are the ones em-host wrote around the run.
  const std::string log = m_Root + "/Korvex.output.log";
  EXPECT_EQ(run.m_Err.rfind("em-host: create: the archive was not created: Korvex exited with "
                            "exit code 3 (status 6)\nem-host: create: Korvex's output is in " +
                                log + "; its last lines:\nem-host: create:   | --- ",
                            0),
            0u)
      << run.m_Err;
  EXPECT_NE(run.m_Err.find("/Korvex ended: exit code 3\n"), std::string::npos) << run.m_Err;
  EXPECT_EQ(run.m_Err.find("status 22"), std::string::npos);
}

TEST_F(EmHostEndToEnd, CreateWhileAnotherKorvexRunsSaysSo) {
  Tool(kToolWritesArchive);
  CForeignKorvex foreign(m_Dir + "/elsewhere");
  const CFinished run = EmHost({"create"});
  // Busy has its own exit status; the message names the running process.
  EXPECT_EQ(run.m_Exit, 75);
  EXPECT_EQ(
      run.m_Err.rfind("em-host: create: another Korvex collection is already running (pid ", 0), 0u)
      << run.m_Err;
  EXPECT_NE(run.m_Err.find(", user root, "), std::string::npos) << run.m_Err;
  EXPECT_NE(run.m_Err.find("); status 5, try again later\n"), std::string::npos) << run.m_Err;
}

TEST_F(EmHostEndToEnd, CreateWithoutToolDoesNotStart) {
  const CFinished run = EmHost({"create"});
  EXPECT_EQ(run.m_Exit, 3);
  EXPECT_EQ(run.m_Out, "");
  EXPECT_EQ(run.m_Err, "em-host: create: Korvex is not installed (" + m_Root +
                           "/Korvex is missing); the module did not start\n");
  const CFinished unconfigured = RunProgram({kEmHost, "create"});
  EXPECT_EQ(unconfigured.m_Exit, 3);
  EXPECT_EQ(unconfigured.m_Err,
            "em-host: create: no Korvex installation root is configured (use --tool-root or "
            "--registry); the module did not start\n");
}

TEST_F(EmHostEndToEnd, TransferRefusalAndMissingArchiveAreReported) {
  Tool(kToolWritesArchive);
  const CFinished missing = EmHost({"transfer", "t.zip"});
  EXPECT_EQ(missing.m_Exit, 1);
  EXPECT_EQ(missing.m_Err,
            "em-host: transfer: status 3: there is no Korvex archive to transfer (create one "
            "first)\n");
  Archive();
  const CFinished refused = EmHost({"transfer", "../t.zip"});
  EXPECT_EQ(refused.m_Exit, 1);
  EXPECT_EQ(refused.m_Err,
            "em-host: transfer: status 8: the BMC refused the file name (empty, absolute, or "
            "containing \"..\" or \"/\")\n");
  const CFinished forced = EmHost({"--hti", "status:11", "transfer", "t.zip"});
  EXPECT_EQ(forced.m_Exit, 1);
  EXPECT_EQ(forced.m_Err,
            "em-host: transfer: status 11: the BMC transfer did not finish within its time "
            "limit\n");
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

TEST_F(EmHostEndToEnd, TransferReportsDestinationAndChecksum) {
  Tool(kToolWritesArchive);
  Archive("PK-archive");
  const CFinished run = EmHost({"transfer", "t.zip"});
  ASSERT_EQ(run.m_Exit, 0) << run.m_Err;
  std::string hex;
  ASSERT_TRUE(Sha256OfFile(m_Bmc + "/t.zip", hex, nullptr));
  const std::vector<std::string> lines = Lines(run.m_Out);
  ASSERT_EQ(lines.size(), 6u) << run.m_Out;
  EXPECT_EQ(
      lines[0].rfind("transfer: the archive " + m_Root + "/Korvex_Data.zip has 10 bytes, ", 0), 0u)
      << lines[0];
  EXPECT_EQ(lines[1], "transfer: transferring the archive to the BMC as t.zip");
  EXPECT_TRUE(WithSeconds(lines[2], "transfer: transfer finished after ", ", status 0"));
  EXPECT_EQ(lines[3], "destination: " + m_Bmc + "/t.zip (10 bytes)");
  EXPECT_EQ(lines[4], "sha256:      " + hex);
  EXPECT_TRUE(WithSeconds(lines[5], "duration:    ", ""));
}

TEST_F(EmHostEndToEnd, CtrlCDuringCreateStopsTheModuleAndEndsTheTool) {
  Tool(kToolSleeps);
  CChildProcess emHost(Args({"create"}));
  ASSERT_TRUE(WaitForFile(m_Root + "/tool.pid", 30000, &emHost)) << emHost.Out();
  ASSERT_TRUE(WaitForFile(m_Root + "/sleep.pid", 30000, &emHost));
  const pid_t tool = std::stoi(ReadFile(m_Root + "/tool.pid"));
  const pid_t sleeper = std::stoi(ReadFile(m_Root + "/sleep.pid"));
  ASSERT_TRUE(ProcessRuns(tool));
  ASSERT_EQ(::kill(emHost.Pid(), SIGINT), 0);
  const CFinished run = emHost.Finish(60);
  EXPECT_EQ(run.m_Exit, 130);
  EXPECT_EQ(run.m_Out, "create: creating the Korvex archive\n");
  EXPECT_EQ(run.m_Err, "em-host: interrupted; stopping the module, which ends a running Korvex\n");
  EXPECT_FALSE(ProcessRuns(tool));
  EXPECT_FALSE(ProcessRuns(sleeper));
}

TEST_F(EmHostEndToEnd, CtrlCDuringAServeWaitStopsTheModuleAndEndsTheTool) {
  Tool(kToolSleeps);
  CChildProcess emHost(Args({"serve"}));
  emHost.Write(RequestLine("1", kCreate) + WaitLine("2", 60000));
  ASSERT_TRUE(WaitForFile(m_Root + "/tool.pid", 30000, &emHost)) << emHost.Out();
  ASSERT_TRUE(WaitForFile(m_Root + "/sleep.pid", 30000, &emHost));
  const pid_t tool = std::stoi(ReadFile(m_Root + "/tool.pid"));
  const pid_t sleeper = std::stoi(ReadFile(m_Root + "/sleep.pid"));
  ASSERT_EQ(::kill(emHost.Pid(), SIGINT), 0);
  const CFinished run = emHost.Finish(60);
  EXPECT_EQ(run.m_Exit, 130);
  // The wait is cut short: no control line for it; the tool is ended.
  EXPECT_EQ(Lines(run.m_Out), (std::vector<std::string>{Ack("1", 1, CreateStatus(22))}));
  EXPECT_EQ(run.m_Err, "");
  EXPECT_FALSE(ProcessRuns(tool));
  EXPECT_FALSE(ProcessRuns(sleeper));
}

TEST_F(EmHostEndToEnd, SigtermEndsAnIdleServeSession) {
  Tool(kToolWritesArchive);
  CChildProcess emHost(Args({"serve"}));
  emHost.Write(RequestLine("1", kQuery));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (emHost.Out().find('\n') == std::string::npos &&
         std::chrono::steady_clock::now() < deadline) {
    emHost.Pump(50);
  }
  ASSERT_EQ(::kill(emHost.Pid(), SIGTERM), 0);
  // Finish closes the input right after the signal; when em-host finds
  // both pending, the signal wins.
  const CFinished run = emHost.Finish(60);
  EXPECT_EQ(run.m_Exit, 143);
  EXPECT_EQ(Lines(run.m_Out), (std::vector<std::string>{Ack("1", 1, kQueryInstalled)}));
}

TEST_F(EmHostEndToEnd, TimeoutStopsTheModuleAndEndsTheTool) {
  Tool(kToolSleeps);
  const CFinished run = EmHost({"create", "--timeout", "1"});
  EXPECT_EQ(run.m_Exit, 4);
  EXPECT_EQ(run.m_Out, "create: creating the Korvex archive\n");
  EXPECT_EQ(run.m_Err,
            "em-host: create: no answer within 1 s; stopping the module, which ends a running "
            "Korvex\nem-host: create: module stopped\n");
  ASSERT_FALSE(ReadFile(m_Root + "/tool.pid").empty());
  EXPECT_FALSE(ProcessRuns(std::stoi(ReadFile(m_Root + "/tool.pid"))));
  EXPECT_FALSE(ProcessRuns(std::stoi(ReadFile(m_Root + "/sleep.pid"))));
}

TEST_F(EmHostEndToEnd, CleanupRemovesTheArchive) {
  if (Exists("/var/log/Korvex")) {
    GTEST_SKIP() << "/var/log/Korvex exists on this machine; cleanup would remove it";
  }
  Tool(kToolWritesArchive);
  Archive();
  const CFinished run = EmHost({"cleanup"});
  EXPECT_EQ(run.m_Exit, 0) << run.m_Err;
  EXPECT_EQ(run.m_Out, "cleanup: EM_SetupAction(4) returned 1\narchive:  " + m_Root +
                           "/Korvex_Data.zip removed\ndata dir: /var/log/Korvex was not there\n");
  EXPECT_FALSE(Exists(m_Root + "/Korvex_Data.zip"));
  const CFinished unconfigured = RunProgram({kEmHost, "cleanup"});
  EXPECT_EQ(unconfigured.m_Exit, 1);
  EXPECT_EQ(unconfigured.m_Out, "cleanup: EM_SetupAction(4) returned 0\n");
}

TEST_F(EmHostEndToEnd, InfoShowsNameDescriptionAndProperties) {
  Tool(kToolWritesArchive);
  const CFinished run = EmHost({"--module", EMHOST_MODULE, "info"});
  EXPECT_EQ(run.m_Exit, 0) << run.m_Err;
  char resolved[PATH_MAX];
  ASSERT_NE(::realpath(EMHOST_MODULE, resolved), nullptr);
  EXPECT_EQ(run.m_Out, std::string("module:      EM_KORVEX\n"
                                   "name:        EM_KORVEX\n"
                                   "description: Korvex extension module\n"
                                   "library:     ") +
                           EMHOST_MODULE +
                           "\n"
                           "properties:  GetProperties 1, name \"EM_KORVEX\", kind 2, flags A "
                           "0x03, flags B 0x00\n"
                           "tool root:   " +
                           m_Root + "/ (Korvex present)\n");
}

TEST_F(EmHostEndToEnd, MissingModuleLibraryIsReported) {
  const CFinished run = EmHost({"--module", m_Dir + "/none.so", "info"});
  EXPECT_EQ(run.m_Exit, 3);
  EXPECT_EQ(run.m_Err, "em-host: cannot load the module library: " + m_Dir +
                           "/none.so: cannot open shared object file: No such file or directory\n");
}

TEST_F(EmHostEndToEnd, UsageErrorsExitWithTwo) {
  const CFinished run = RunProgram({kEmHost, "--bogus", "query"});
  EXPECT_EQ(run.m_Exit, 2);
  EXPECT_EQ(run.m_Err,
            "em-host: unknown option --bogus\nTry 'em-host --help' for more information.\n");
  const CFinished help = RunProgram({kEmHost, "--help"});
  EXPECT_EQ(help.m_Exit, 0);
  EXPECT_EQ(help.m_Out.rfind("usage: em-host [options] COMMAND", 0), 0u);
}

TEST_F(EmHostEndToEnd, TraceGoesToTheFileAndLevelZeroWritesNothing) {
  Tool(kToolWritesArchive);
  const std::string silent = m_Dir + "/silent.trace";
  EXPECT_EQ(EmHost({"--trace", silent, "query"}).m_Exit, 0);
  EXPECT_EQ(ReadFile(silent), "");
  const std::string agentless = m_Dir + "/agentless.trace";
  EXPECT_EQ(EmHost({"--trace", agentless, "--trace-level", "4", "query"}).m_Exit, 0);
  const std::string text = ReadFile(agentless);
  EXPECT_NE(text.find("\nEM_KORVEX (Start)   : ### Starting module EM_KORVEX ###\n"),
            std::string::npos);
  EXPECT_NE(text.find("\nEM_KORVEX           : Register event log source \"Halvane Agentless "
                      "Service\" ..."),
            std::string::npos);
  const std::string control = m_Dir + "/control.trace";
  EXPECT_EQ(
      EmHost({"--trace", control, "--trace-level", "4", "--service-type", "1", "query"}).m_Exit, 0);
  EXPECT_NE(ReadFile(control).find("\nEM_KORVEX           : Register event log source "
                                   "\"Halvane Server Control\" ..."),
            std::string::npos);
  // Level 2 keeps the level-4 lines out.
  const std::string two = m_Dir + "/two.trace";
  EXPECT_EQ(EmHost({"--trace", two, "--trace-level", "2", "query"}).m_Exit, 0);
  EXPECT_EQ(ReadFile(two).find("Register event log source"), std::string::npos);
  EXPECT_NE(ReadFile(two).find("### Starting module EM_KORVEX ###"), std::string::npos);
}

TEST_F(EmHostEndToEnd, InstalledTreeFindsItsModule) {
  const std::string destdir = m_Dir + "/stage";
  const CFinished install = RunProgram({EMHOST_CMAKE, "--install", EMHOST_BUILD_DIR, "--component",
                                        "emhost", "--prefix", "/opt/korvex"},
                                       "", {"DESTDIR=" + destdir});
  ASSERT_EQ(install.m_Exit, 0) << install.m_Out << install.m_Err;
  const std::string prefix = destdir + "/opt/korvex";
  EXPECT_TRUE(Exists(prefix + "/bin/em-host"));
  EXPECT_TRUE(Exists(prefix + "/" EMHOST_INSTALLED_MODULE_DIR "/libEM_KORVEX.so"));
  const CFinished run = RunProgram({prefix + "/bin/em-host", "info"});
  EXPECT_EQ(run.m_Exit, 0) << run.m_Err;
  EXPECT_EQ(run.m_Out,
            "module:      EM_KORVEX\n"
            "name:        EM_KORVEX\n"
            "description: Korvex extension module\n"
            "library:     " +
                prefix +
                "/" EMHOST_INSTALLED_MODULE_DIR
                "/libEM_KORVEX.so\n"
                "properties:  GetProperties 1, name \"EM_KORVEX\", kind 2, flags A 0x03, flags B "
                "0x00\n"
                "tool root:   not configured\n");
}

// ----- serve: output reaches the reader while the input stays open ---------------

// Acks of lines that were read together may go out in one flush, but never
// wait for more input; the worker's reply goes out as soon as it is sent.
// The input is kept open throughout, so a line held back in em-host's
// buffer would never arrive.
TEST_F(EmHostEndToEnd, ServeAcksAndRepliesArriveWhileTheInputStaysOpen) {
  Tool(kToolWritesArchive);
  CChildProcess host(Args({"serve"}));
  host.Write(RequestLine("1", kQuery) + RequestLine("2", kCreate));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::count(host.Out().begin(), host.Out().end(), '\n') < 3 &&
         std::chrono::steady_clock::now() < deadline) {
    host.Pump(50);
  }
  EXPECT_EQ(Lines(host.Out()),
            (std::vector<std::string>{Ack("1", 1, kQueryInstalled), Ack("2", 1, CreateStatus(22)),
                                      Reply("2", CreateStatus(0))}));
  host.Write(RequestLine("3", kQuery));
  const auto again = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::count(host.Out().begin(), host.Out().end(), '\n') < 4 &&
         std::chrono::steady_clock::now() < again) {
    host.Pump(50);
  }
  const std::vector<std::string> lines = Lines(host.Out());
  ASSERT_EQ(lines.size(), 4u) << host.Out();
  EXPECT_EQ(lines[3], Ack("3", 1, kQueryInstalled));
  const CFinished finished = host.Finish();
  EXPECT_EQ(finished.m_Exit, 0) << finished.m_Err;
  EXPECT_EQ(finished.m_Err, "");
}

// ----- archives of any size, only regular files, and the value limit -------------------

TEST_F(EmHostEndToEnd, ServeRefusesLinesHoldingMoreThanTheValueLimit) {
  Tool(kToolWritesArchive);
  // The line object, "id", "request", "SIP", "V", "CMD", the command, "OC"
  // and "CA" are 9 values, "X" one more; its elements fill up to the limit.
  auto line = [](const std::string& id, std::size_t elements) {
    std::string list = "[";
    for (std::size_t i = 0; i < elements; ++i) list += i == 0 ? "0" : ",0";
    return R"({"id":)" + id + R"(,"request":{"SIP":{"V":1,"CMD":[{"OC":13312,"CA":0,"X":)" + list +
           "]}]}}}\n";
  };
  const std::vector<std::string> lines =
      Serve(line("1", 16384 - 10) + line("2", 16384 - 9) + RequestLine("3", kQuery));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].rfind(R"({"id":1,"event":"ack","result":1,)", 0), 0u)
      << lines[0].substr(0, 80);
  EXPECT_EQ(lines[1], Error(2, "a line may hold at most 16384 JSON values"));
  EXPECT_EQ(lines[2], Ack("3", 1, kQueryInstalled));
}

TEST_F(EmHostEndToEnd, TransferOfAnArchiveLeftAsALinkIsRefusedAndNamed) {
  Tool(kToolWritesArchive);
  WriteFile(m_Dir + "/secret", "not for the BMC\n", 0600);
  ASSERT_EQ(::symlink((m_Dir + "/secret").c_str(), (m_Root + "/Korvex_Data.zip").c_str()), 0);
  const CFinished run = EmHost({"transfer", "t.zip"});
  EXPECT_EQ(run.m_Exit, 1);
  EXPECT_EQ(run.m_Err, "em-host: transfer: status 9: the BMC could not read the archive: " +
                           m_Root + "/Korvex_Data.zip is a symbolic link (not followed)\n");
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

TEST_F(EmHostEndToEnd, TransferOfAFifoArchiveDoesNotHang) {
  Tool(kToolWritesArchive);
  ASSERT_EQ(::mkfifo((m_Root + "/Korvex_Data.zip").c_str(), 0600), 0);
  const CFinished run = EmHost({"transfer", "t.zip"});
  EXPECT_EQ(run.m_Exit, 1);
  EXPECT_EQ(run.m_Err, "em-host: transfer: status 9: the BMC could not read the archive: " +
                           m_Root + "/Korvex_Data.zip is a FIFO, not a regular file\n");
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

// A 4 GiB archive through collect: the tool leaves a sparse file (no disk
// space, read at memory speed), the copy writes 4 GiB for real. The
// transfer's default "TO" (60 s + 4 GiB at 20 MB/s = 275 s) is what lets
// it through; before, the switch gave up after 5 s. Takes about 10-20 s and
// 4 GiB of disk for a moment (removed with the test's directory).
TEST_F(EmHostEndToEnd, CollectDeliversAndVerifiesAFourGibibyteArchive) {
  constexpr unsigned long long kSize = 4ull << 30;
  struct statvfs space {};
  ASSERT_EQ(::statvfs(m_Dir.c_str(), &space), 0);
  if (static_cast<unsigned long long>(space.f_bavail) * space.f_frsize < kSize + (2ull << 30)) {
    GTEST_SKIP() << "less than 6 GiB free in " << m_Dir;
  }
  Tool("cd \"$(dirname \"$0\")\" && rm -f Korvex_Data.zip && truncate -s 4G Korvex_Data.zip\n");
  const CFinished run = EmHost({"collect", "big.zip"});
  ASSERT_EQ(run.m_Exit, 0) << run.m_Out << run.m_Err;
  // The digest of 4 GiB of zeros, computed here without touching the disk.
  CSha256 zeros;
  const std::string block(1u << 20, '\0');
  for (unsigned long long done = 0; done < kSize; done += block.size()) {
    zeros.Update(block.data(), block.size());
  }
  const std::string hex = zeros.FinalHex();
  struct stat info {};
  ASSERT_EQ(::stat((m_Bmc + "/big.zip").c_str(), &info), 0);
  EXPECT_EQ(static_cast<unsigned long long>(info.st_size), kSize);
  EXPECT_EQ(ReadFile(m_Bmc + "/big.zip.sha256"), hex + "  big.zip\n");
  EXPECT_NE(run.m_Out.find("sha256:      " + hex + "\n"), std::string::npos) << run.m_Out;
  EXPECT_EQ(Entries(m_Bmc), (std::set<std::string>{"big.zip", "big.zip.sha256"}));
  ::unlink((m_Bmc + "/big.zip").c_str());
}
