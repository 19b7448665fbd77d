// Tests of the handlers em-host registers for the file transfer's opcode,
// driven through the switch as the module drives them: the --hti modes, the
// copy handler's answer, its wait that follows "TO", the cancel when
// em-host stops the module, the progress and the record of the last answer.
#include "host/emhost/bmc/HtiStandIn.h"
#include "host/emhost/switch/HostSwitch.h"
#include "message/SipJson.h"
#include "tests/emhost/TransferRequests.h"
#include "tests/emhost/bmc/BmcTestFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

using namespace korvex_test;

// The switch with the stand-in for mode registered, as em-host builds them.
struct CStandInSwitch {
  explicit CStandInSwitch(CHtiMode mode, const std::string& bmc,
                          CCopySettings copy = CCopySettings{})
      : m_StandIn(mode, bmc, copy) {
    m_StandIn.RegisterWith(m_Switch);
  }
  CHtiStandIn m_StandIn;
  CHostSwitch m_Switch{5};
};

// Records the requests the switch routed.
class CRecordingListener : public CISwitchListener {
 public:
  void OnReply(std::uint64_t /*tag*/, SipJson& /*message*/) override {}
  void OnRouted(unsigned int opcode, SipJson& request) override {
    EXPECT_EQ(opcode, korvex::kOpcodeHtiFileTransfer);
    m_Transfers.push_back(request.ToJson());
  }
  std::vector<std::string> m_Transfers;
};

// 128 chunks of 4 KiB with 50 ms after each: a copy of about 6.4 s, longer
// than the 5000 ms the module passes.
const CCopySettings kSlowDisk{4096, 2, 50};
constexpr std::size_t kSlowFile = 128 * 4096;

// A source of kSlowFile bytes and the stand-in copying on the slow disk.
struct CSlowCopy {
  CSlowCopy() { WriteFile(m_Source, m_Data); }
  CBmcScratchDir m_Dir;
  const std::string m_Bmc = m_Dir.Sub("bmc");
  const std::string m_Source = m_Dir.Path() + "/src";
  const std::string m_Data = Pattern(kSlowFile);
  CStandInSwitch m_Both{CHtiMode{}, m_Bmc, kSlowDisk};

  // A request to copy the source as name, with "TO" toSec.
  SipJson Request(const std::string& name, unsigned int toSec) {
    SipJson request;
    BuildTransfer(request, m_Source, name, toSec);
    return request;
  }
  int Send(SipJson& request) { return m_Both.m_Switch.AsyncRequest(nullptr, request, 5000); }
};

}  // namespace

TEST(EmHostSwitch, HtiModesAnswerAsConfigured) {
  struct CCase {
    CHtiMode m_Mode;
    int m_Result;
    const char* m_After;
    std::size_t m_Transfers;
  };
  const std::string sent =
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522,\"DA\":{\"FileType\":2,\"LocalFilePath\":\"/a\","
      "\"BmcFilePath\":\"b\"}}]}}";
  const std::string statusNine =
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522,\"DA\":{\"FileType\":2,\"LocalFilePath\":\"/a\","
      "\"BmcFilePath\":\"b\"},\"ST\":9}]}}";
  const CCase cases[] = {
      {CHtiMode{CHtiMode::kStatus, 9}, 1, statusNine.c_str(), 1},
      {CHtiMode{CHtiMode::kSilent, 0}, 0, sent.c_str(), 1},
      {CHtiMode{CHtiMode::kAbsent, 0}, 0, sent.c_str(), 0},
  };
  for (const CCase& c : cases) {
    CStandInSwitch both(c.m_Mode, "/nonexistent");
    CHostSwitch& hostSwitch = both.m_Switch;
    CRecordingListener listener;
    hostSwitch.SetListener(&listener);
    SipJson request;
    ASSERT_TRUE(request.FromJson(sent.data(), sent.size()));
    EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, request, 5000), c.m_Result);
    EXPECT_EQ(request.ToJson(), c.m_After);
    ASSERT_EQ(listener.m_Transfers.size(), c.m_Transfers);
    if (c.m_Transfers == 1) {
      EXPECT_EQ(listener.m_Transfers[0], sent);
    }
    hostSwitch.SetListener(nullptr);
  }
}

TEST(EmHostSwitch, CopyModeWritesTheTransferStatus) {
  CBmcScratchDir dir;
  WriteFile(dir.Path() + "/Korvex_Data.zip", "zip");
  CStandInSwitch both(CHtiMode{}, dir.Path());
  CHostSwitch& hostSwitch = both.m_Switch;
  SipJson ok;
  BuildTransfer(ok, dir.Path() + "/Korvex_Data.zip", "copy.zip", 4);
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, ok, 5000), 1);
  EXPECT_EQ(ok.Status(), 0u);
  EXPECT_EQ(ReadFile(dir.Path() + "/copy.zip"), "zip");
  SipJson refused;
  BuildTransfer(refused, dir.Path() + "/Korvex_Data.zip", "../up.zip", 4);
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, refused, 5000), 1);
  EXPECT_EQ(refused.Status(), static_cast<unsigned int>(korvex::kStatusBmcNameRefused));
}

TEST(EmHostSwitch, SwitchTimeOutLeavesNoStatusAndNoFile) {
  CBmcScratchDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  WriteFile(dir.Path() + "/src", std::string(64 * 4096, 's'));
  CStandInSwitch both(CHtiMode{}, bmc, CCopySettings{4096, 2, 20});
  CHostSwitch& hostSwitch = both.m_Switch;
  SipJson request;
  BuildTransfer(request, dir.Path() + "/src", "late.zip", 0);
  const std::string before = request.ToJson();
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, request, 100), 0);
  EXPECT_EQ(request.ToJson(), before);
  EXPECT_EQ(request.Status(), 22u);
  // The abandoned copy ends when the switch goes; nothing may appear.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(Entries(bmc).count("late.zip"), 0u);
}

TEST(EmHostOptions, HtiModes) {
  CHtiMode mode;
  ASSERT_TRUE(CHtiMode::Parse("status:0", mode));
  EXPECT_EQ(mode.m_Kind, CHtiMode::kStatus);
  EXPECT_EQ(mode.m_Status, 0u);
  ASSERT_TRUE(CHtiMode::Parse("silent", mode));
  EXPECT_EQ(mode.m_Kind, CHtiMode::kSilent);
  ASSERT_TRUE(CHtiMode::Parse("absent", mode));
  EXPECT_EQ(mode.m_Kind, CHtiMode::kAbsent);
  EXPECT_FALSE(CHtiMode::Parse("status:", mode));
  EXPECT_FALSE(CHtiMode::Parse("status:-1", mode));
  EXPECT_FALSE(CHtiMode::Parse("status:4294967296", mode));
  EXPECT_FALSE(CHtiMode::Parse("Silent", mode));
}

TEST(EmHostSwitchWait, TheSendersTimeOutIsTheLeastAndToAddsItsGrace) {
  EXPECT_EQ(CBmcCopyHandler::TransferWaitMs(5000, 0), 5000u);
  EXPECT_EQ(CBmcCopyHandler::TransferWaitMs(5000, 29), 29000u + kTransferAnswerGraceMs);
  EXPECT_EQ(CBmcCopyHandler::TransferWaitMs(60000, 1), 60000u);
  EXPECT_EQ(CBmcCopyHandler::TransferWaitMs(5000, 65535), 65535000ull + kTransferAnswerGraceMs);
}

TEST(EmHostSwitchWait, ACopyLongerThanFiveSecondsSucceedsWithinItsTo) {
  CSlowCopy slow;
  const std::string& bmc = slow.m_Bmc;
  SipJson request = slow.Request("slow.zip", 29);
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(slow.Send(request), 1);
  const double seconds = SecondsSince(start);
  EXPECT_EQ(request.Status(), korvex::kStatusDone);
  EXPECT_GT(seconds, 5.0);  // the premise: the copy did outlive 5 s
  EXPECT_EQ(ReadFile(bmc + "/slow.zip"), slow.m_Data);
  EXPECT_EQ(Entries(bmc), (std::set<std::string>{"slow.zip", "slow.zip.sha256"}));
}

TEST(EmHostSwitchWait, ACopyLongerThanItsToAnswersElevenAndLeavesNothing) {
  CSlowCopy slow;
  const std::string& bmc = slow.m_Bmc;
  SipJson request = slow.Request("late.zip", 2);
  EXPECT_EQ(slow.Send(request), 1);
  EXPECT_EQ(request.Status(), static_cast<unsigned int>(korvex::kStatusBmcTimedOut));
  EXPECT_TRUE(Entries(bmc).empty());
}

TEST(EmHostSwitchStop, StopDuringACopyRemovesItAndItNeverAppears) {
  CSlowCopy slow;
  const std::string& bmc = slow.m_Bmc;
  SipJson request = slow.Request("stopped.zip", 60);
  int result = -1;
  std::thread worker([&] { result = slow.Send(request); });
  ASSERT_TRUE(CopyUnderWay(bmc));
  slow.m_Both.m_Switch.StopHandlers();
  // The temporary file is gone when StopHandlers returns.
  EXPECT_TRUE(Entries(bmc).empty());
  worker.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(request.Status(), 22u);  // no status: the module reads 22
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(Entries(bmc).empty());

  // While stopped no copy starts; allowed again, one does.
  SipJson refused = slow.Request("refused.zip", 60);
  EXPECT_EQ(slow.Send(refused), 0);
  EXPECT_TRUE(Entries(bmc).empty());
  slow.m_Both.m_Switch.AllowHandlers();
  WriteFile(slow.m_Dir.Path() + "/small", "small");
  SipJson again;
  BuildTransfer(again, slow.m_Dir.Path() + "/small", "again.zip", 60);
  EXPECT_EQ(slow.Send(again), 1);
  EXPECT_EQ(again.Status(), 0u);
  EXPECT_EQ(ReadFile(bmc + "/again.zip"), "small");
}

TEST(EmHostSwitchStop, ProgressShowsTheCopyUnderWay) {
  CSlowCopy slow;
  const std::string& bmc = slow.m_Bmc;
  SipJson request = slow.Request("p.zip", 60);
  std::thread worker([&] { slow.Send(request); });
  ASSERT_TRUE(CopyUnderWay(bmc));
  CTransferProgress progress;
  bool seen = false;
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (!seen && Clock::now() < deadline) {
    seen = slow.m_Both.m_StandIn.TransferProgress(progress) && progress.m_Copied > 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  slow.m_Both.m_Switch.StopHandlers();
  worker.join();
  ASSERT_TRUE(seen);
  EXPECT_EQ(progress.m_Total, kSlowFile);
  EXPECT_LT(progress.m_Copied, kSlowFile);
}

// ----- what a command reads of the stand-in -------------------------------------------

TEST(EmHostHtiStandIn, RemembersTheLastAnswersMessageAndTheDigestItStored) {
  CBmcScratchDir dir;
  const std::string bmc = dir.Sub("bmc");
  const std::string content = Pattern(3 * 4096 + 7);
  WriteFile(dir.Path() + "/src", content);
  CStandInSwitch both(CHtiMode{}, bmc);
  EXPECT_EQ(both.m_StandIn.TransferMessage(), "");
  EXPECT_EQ(both.m_StandIn.StoredSha256(bmc + "/a.zip"), "");

  SipJson stored;
  BuildTransfer(stored, dir.Path() + "/src", "a.zip", 30);
  ASSERT_EQ(both.m_Switch.AsyncRequest(nullptr, stored, 5000), 1);
  ASSERT_EQ(stored.Status(), korvex::kStatusDone);
  EXPECT_EQ(both.m_StandIn.StoredSha256(bmc + "/a.zip"), Sha256Hex(content));
  EXPECT_EQ(both.m_StandIn.StoredSha256(bmc + "/b.zip"), "");
  EXPECT_EQ(both.m_StandIn.TransferMessage(), "");

  // A failed answer brings its message and leaves the digest of the last
  // stored file as it was.
  SipJson failed;
  BuildTransfer(failed, dir.Path() + "/missing", "b.zip", 30);
  ASSERT_EQ(both.m_Switch.AsyncRequest(nullptr, failed, 5000), 1);
  EXPECT_EQ(failed.Status(), static_cast<unsigned int>(korvex::kStatusBmcSourceUnreadable));
  EXPECT_EQ(both.m_StandIn.TransferMessage(), dir.Path() + "/missing: No such file or directory");
  EXPECT_EQ(both.m_StandIn.StoredSha256(bmc + "/a.zip"), Sha256Hex(content));
}

TEST(EmHostHtiStandIn, FakesAndAbsenceMakeNoCopyToReport) {
  for (const CHtiMode mode : {CHtiMode{CHtiMode::kStatus, 0}, CHtiMode{CHtiMode::kSilent, 0},
                              CHtiMode{CHtiMode::kAbsent, 0}}) {
    CBmcScratchDir dir;
    WriteFile(dir.Path() + "/src", "zip");
    CStandInSwitch both(mode, dir.Path());
    SipJson request;
    BuildTransfer(request, dir.Path() + "/src", "copy.zip", 30);
    both.m_Switch.AsyncRequest(nullptr, request, 5000);
    CTransferProgress progress;
    EXPECT_FALSE(both.m_StandIn.TransferProgress(progress)) << mode.m_Kind;
    EXPECT_EQ(both.m_StandIn.TransferMessage(), "") << mode.m_Kind;
    EXPECT_EQ(both.m_StandIn.StoredSha256(dir.Path() + "/copy.zip"), "") << mode.m_Kind;
    // Nothing was copied.
    EXPECT_EQ(Entries(dir.Path()), (std::set<std::string>{"src"})) << mode.m_Kind;
  }
}
