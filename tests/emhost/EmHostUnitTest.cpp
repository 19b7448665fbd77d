// Unit tests of em-host's parts: the stand-in BMC file transfer, the
// switch's tags and routing, the option parser, the status texts and the
// SHA-256 wrapper.
#include "frame/ExtensionModule.h"
#include "host/emhost/bmc/BmcFileTransfer.h"
#include "host/emhost/switch/HostSwitch.h"
#include "host/emhost/bmc/Sha256.h"
#include "host/emhost/cli/StatusText.h"
#include "message/SipJson.h"
#include "tests/emhost/TransferRequests.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// A scratch directory of this suite.
class CTempDir : public korvex_test::CTempDir {
 public:
  CTempDir() : korvex_test::CTempDir("emhost-unit", "/tmp") {}
};

using korvex_test::BuildTransfer;
using korvex_test::Entries;
using korvex_test::ReadFile;
using korvex_test::Sha256Hex;
using korvex_test::WriteFile;

unsigned int RunTransfer(const CBmcFileTransfer& transfer, const std::string& local,
                         const std::string& bmc, unsigned int timeout, CBmcTransferJob& job) {
  CBmcTransferRequest request;
  request.m_FileType = 2;
  request.m_LocalPath = local;
  request.m_BmcName = bmc;
  request.m_TimeoutSec = timeout;
  transfer.Run(request, job);
  EXPECT_TRUE(job.m_Finished);
  return job.m_Status;
}

}  // namespace

// ----- SHA-256 ---------------------------------------------------------------

TEST(EmHostSha256, KnownDigests) {
  EXPECT_EQ(Sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(EmHostSha256, FileDigestAndUnreadableFile) {
  CTempDir dir;
  WriteFile(dir.Path() + "/f", "abc");
  std::string hex;
  ASSERT_TRUE(Sha256OfFile(dir.Path() + "/f", hex, nullptr));
  EXPECT_EQ(hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  std::string error;
  EXPECT_FALSE(Sha256OfFile(dir.Path() + "/missing", hex, &error));
  EXPECT_EQ(error, dir.Path() + "/missing: No such file or directory");
}

// ----- BMC file names ---------------------------------------------------------

TEST(EmHostBmcNames, PlainNamesAreAccepted) {
  EXPECT_TRUE(CBmcFileTransfer::NameAcceptable("Korvex_Data.zip"));
  EXPECT_TRUE(CBmcFileTransfer::NameAcceptable("a.b.c"));
  EXPECT_TRUE(CBmcFileTransfer::NameAcceptable(std::string(200, 'x')));
}

TEST(EmHostBmcNames, EmptyAbsoluteDotDotSlashAndOddNamesAreRefused) {
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable(""));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable("/etc/passwd"));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable(".."));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable("../x.zip"));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable("a..b"));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable("sub/x.zip"));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable("."));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable(std::string(201, 'x')));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable("a\nb"));
  EXPECT_FALSE(CBmcFileTransfer::NameAcceptable("a\\b"));
}

// ----- request parsing ----------------------------------------------------------

TEST(EmHostBmcRequest, ReadsTheModulesRequest) {
  SipJson request;
  BuildTransfer(request, "/r/Korvex_Data.zip", "n.zip", 29);
  CBmcTransferRequest parsed;
  ASSERT_EQ(CBmcFileTransfer::ParseRequest(request, parsed), BMC_OK);
  EXPECT_EQ(parsed.m_FileType, 2u);
  EXPECT_EQ(parsed.m_LocalPath, "/r/Korvex_Data.zip");
  EXPECT_EQ(parsed.m_BmcName, "n.zip");
  EXPECT_EQ(parsed.m_TimeoutSec, 29u);
}

TEST(EmHostBmcRequest, MissingTimeoutMeansNoLimit) {
  SipJson request;
  BuildTransfer(request, "/r/a", "n", 0);
  CBmcTransferRequest parsed;
  parsed.m_TimeoutSec = 77;
  ASSERT_EQ(CBmcFileTransfer::ParseRequest(request, parsed), BMC_OK);
  EXPECT_EQ(parsed.m_TimeoutSec, 0u);
}

TEST(EmHostBmcRequest, MalformedRequestsAreBadRequests) {
  const char* const texts[] = {
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522}]}}",
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522,\"DA\":\"x\"}]}}",
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522,\"DA\":{\"FileType\":3,\"LocalFilePath\":\"a\","
      "\"BmcFilePath\":\"b\"}}]}}",
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522,\"DA\":{\"FileType\":2,\"BmcFilePath\":\"b\"}}]}}",
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522,\"DA\":{\"FileType\":2,\"LocalFilePath\":1,"
      "\"BmcFilePath\":\"b\"}}]}}",
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":61522,\"TO\":\"5\",\"DA\":{\"FileType\":2,"
      "\"LocalFilePath\":\"a\",\"BmcFilePath\":\"b\"}}]}}",
  };
  for (const char* text : texts) {
    SipJson request;
    ASSERT_TRUE(request.FromJson(text, std::strlen(text))) << text;
    CBmcTransferRequest parsed;
    EXPECT_EQ(CBmcFileTransfer::ParseRequest(request, parsed), BMC_BAD_REQUEST) << text;
  }
}

// ----- the copy -------------------------------------------------------------------

TEST(EmHostBmcCopy, StoresVerifiedCopyAndChecksumLine) {
  CTempDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  const std::string content(300000, 'k');
  WriteFile(dir.Path() + "/Korvex_Data.zip", content);
  CBmcFileTransfer transfer(bmc);
  CBmcTransferJob job;
  ASSERT_EQ(RunTransfer(transfer, dir.Path() + "/Korvex_Data.zip", "out.zip", 0, job), BMC_OK);
  EXPECT_EQ(Entries(bmc), (std::set<std::string>{"out.zip", "out.zip.sha256"}));
  EXPECT_EQ(ReadFile(bmc + "/out.zip"), content);
  const std::string hex = Sha256Hex(content);
  EXPECT_EQ(ReadFile(bmc + "/out.zip.sha256"), hex + "  out.zip\n");
  EXPECT_EQ(job.m_StoredPath, bmc + "/out.zip");
  EXPECT_EQ(job.m_Sha256, hex);
  EXPECT_EQ(job.m_Size, content.size());
  struct stat info {};
  ASSERT_EQ(::stat((bmc + "/out.zip").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST(EmHostBmcCopy, ReplacesAnEarlierFileOfTheSameName) {
  CTempDir dir;
  WriteFile(dir.Path() + "/src", "new");
  WriteFile(dir.Path() + "/out.zip", "old and longer");
  CBmcFileTransfer transfer(dir.Path());
  CBmcTransferJob job;
  ASSERT_EQ(RunTransfer(transfer, dir.Path() + "/src", "out.zip", 0, job), BMC_OK);
  EXPECT_EQ(ReadFile(dir.Path() + "/out.zip"), "new");
}

TEST(EmHostBmcCopy, RefusedNameCopiesNothing) {
  CTempDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  WriteFile(dir.Path() + "/src", "x");
  CBmcFileTransfer transfer(bmc);
  for (const char* name : {"", "/abs.zip", "../up.zip", "a/b.zip"}) {
    CBmcTransferJob job;
    EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/src", name, 0, job), BMC_NAME_REFUSED) << name;
  }
  EXPECT_TRUE(Entries(bmc).empty());
  EXPECT_EQ(Entries(dir.Path()), (std::set<std::string>{"bmc", "src"}));
}

TEST(EmHostBmcCopy, UnreadableSourceIsReported) {
  CTempDir dir;
  CBmcFileTransfer transfer(dir.Path());
  CBmcTransferJob missing;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/missing", "x", 0, missing), BMC_SOURCE_UNREADABLE);
  ASSERT_EQ(::mkdir((dir.Path() + "/adir").c_str(), 0755), 0);
  CBmcTransferJob directory;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/adir", "x", 0, directory), BMC_SOURCE_UNREADABLE);
  EXPECT_EQ(Entries(dir.Path()), (std::set<std::string>{"adir"}));
}

TEST(EmHostBmcCopy, MissingBmcDirectoryIsAWriteFailure) {
  CTempDir dir;
  WriteFile(dir.Path() + "/src", "x");
  CBmcFileTransfer transfer(dir.Path() + "/nowhere");
  CBmcTransferJob job;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/src", "x", 0, job), BMC_WRITE_FAILED);
}

TEST(EmHostBmcCopy, TimeLimitLeavesNoFileBehind) {
  CTempDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  WriteFile(dir.Path() + "/src", std::string(64 * 4096, 's'));
  // 64 chunks of 4 KiB with 50 ms after each: about 3 s, beyond "TO" 1.
  CBmcFileTransfer transfer(bmc, CCopySettings{4096, 2, 50});
  CBmcTransferJob job;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/src", "slow.zip", 1, job), BMC_TIMED_OUT);
  EXPECT_TRUE(Entries(bmc).empty());
}

TEST(EmHostBmcCopy, CancelledCopyNeverAppears) {
  CTempDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  WriteFile(dir.Path() + "/src", std::string(64 * 4096, 's'));
  CBmcFileTransfer transfer(bmc, CCopySettings{4096, 2, 20});
  CBmcTransferJob job;
  std::thread canceller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::lock_guard<std::mutex> lock(job.m_Mutex);
    job.m_Cancelled = true;
  });
  RunTransfer(transfer, dir.Path() + "/src", "gone.zip", 0, job);
  canceller.join();
  EXPECT_NE(job.m_Status, BMC_OK);
  EXPECT_TRUE(Entries(bmc).empty());
}

// ----- the switch -------------------------------------------------------------------

namespace {

// A module that answers requests by status 22 and remembers the message.
class CTagModule : public CExtensionModule {
 public:
  int ModuleRequest(SipJson& request) override {
    m_Extra = request.m_pszExtra != nullptr ? request.m_pszExtra : "(null)";
    request.SetStatus(22);
    return 1;
  }
  std::string m_Extra;
};

class CRecordingListener : public CISwitchListener {
 public:
  void OnReply(std::uint64_t tag, SipJson& message) override {
    m_Replies.push_back(std::to_string(tag) + " " + message.ToJson());
  }
  void OnTransfer(SipJson& request) override { m_Transfers.push_back(request.ToJson()); }
  std::vector<std::string> m_Replies;
  std::vector<std::string> m_Transfers;
};

}  // namespace

TEST(EmHostSwitch, DeliverTagsTheRequestAndTheCopyCarriesTheTagBack) {
  CHostSwitch hostSwitch(5, CHtiMode{}, "/nonexistent");
  CRecordingListener listener;
  hostSwitch.SetListener(&listener);
  CTagModule module;
  SipJson request;
  ASSERT_EQ(hostSwitch.Deliver(module, request, 41), 1);
  EXPECT_EQ(module.m_Extra, "em-host:41");
  EXPECT_EQ(CHostSwitch::TagOf(request), 41u);

  SipJson queued(request);  // what the module's queue keeps
  queued.SetStatus(0);
  EXPECT_EQ(hostSwitch.SendReply(&module, queued), 1);
  ASSERT_EQ(listener.m_Replies.size(), 1u);
  EXPECT_EQ(listener.m_Replies[0], "41 {\"SIP\":{\"V\":1,\"CMD\":[{\"ST\":0}]}}");
  hostSwitch.SetListener(nullptr);
}

TEST(EmHostSwitch, ReplyWithoutOurTagIsReportedAsTagZero) {
  CHostSwitch hostSwitch(5, CHtiMode{}, "/nonexistent");
  CRecordingListener listener;
  hostSwitch.SetListener(&listener);
  CTagModule module;
  SipJson stray;
  EXPECT_EQ(hostSwitch.SendReply(&module, stray), 0);
  stray.m_pszExtra = ::strdup("someone-else:3");
  EXPECT_EQ(hostSwitch.SendReply(&module, stray), 0);
  EXPECT_EQ(listener.m_Replies, (std::vector<std::string>{"0 {\"SIP\":{\"V\":1,\"CMD\":[]}}",
                                                          "0 {\"SIP\":{\"V\":1,\"CMD\":[]}}"}));
  hostSwitch.SetListener(nullptr);
}

TEST(EmHostSwitch, ServiceTypeIsTheConfiguredOne) {
  CHostSwitch agentless(5, CHtiMode{}, "/x");
  CHostSwitch other(7, CHtiMode{}, "/x");
  EXPECT_EQ(agentless.GetServiceType(), 5u);
  EXPECT_EQ(other.GetServiceType(), 7u);
}

TEST(EmHostSwitch, OtherOpcodesFindNoModule) {
  CHostSwitch hostSwitch(5, CHtiMode{CHtiMode::kStatus, 0}, "/x");
  CRecordingListener listener;
  hostSwitch.SetListener(&listener);
  SipJson request;
  const char text[] = "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":1234}]}}";
  ASSERT_TRUE(request.FromJson(text, sizeof(text) - 1));
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, request, 5000), 0);
  EXPECT_EQ(request.ToJson(), text);
  EXPECT_TRUE(listener.m_Transfers.empty());
  hostSwitch.SetListener(nullptr);
}

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
    CHostSwitch hostSwitch(5, c.m_Mode, "/nonexistent");
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
  CTempDir dir;
  WriteFile(dir.Path() + "/Korvex_Data.zip", "zip");
  CHostSwitch hostSwitch(5, CHtiMode{}, dir.Path());
  SipJson ok;
  BuildTransfer(ok, dir.Path() + "/Korvex_Data.zip", "copy.zip", 4);
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, ok, 5000), 1);
  EXPECT_EQ(ok.Status(), 0u);
  EXPECT_EQ(ReadFile(dir.Path() + "/copy.zip"), "zip");
  SipJson refused;
  BuildTransfer(refused, dir.Path() + "/Korvex_Data.zip", "../up.zip", 4);
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, refused, 5000), 1);
  EXPECT_EQ(refused.Status(), static_cast<unsigned int>(BMC_NAME_REFUSED));
}

TEST(EmHostSwitch, SwitchTimeOutLeavesNoStatusAndNoFile) {
  CTempDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  WriteFile(dir.Path() + "/src", std::string(64 * 4096, 's'));
  CHostSwitch hostSwitch(5, CHtiMode{}, bmc, CCopySettings{4096, 2, 20});
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

// ----- the file transfer modes of the switch --------------------------------------

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

// ----- status texts ------------------------------------------------------------------

TEST(EmHostStatusText, NamesTheStatusAndItsMeaning) {
  EXPECT_EQ(StatusLine(5, EmJob::kCreate),
            "status 5: another Korvex collection is already running");
  EXPECT_EQ(StatusLine(3, EmJob::kTransfer),
            "status 3: there is no Korvex archive to transfer (create one first)");
  EXPECT_EQ(StatusLine(20, EmJob::kQuery),
            "status 20: the request is meant for another server cabinet");
  EXPECT_EQ(StatusLine(8, EmJob::kTransfer),
            "status 8: the BMC refused the file name (empty, absolute, or containing \"..\" or "
            "\"/\")");
  EXPECT_EQ(StatusLine(22, EmJob::kTransfer), "status 22: the BMC file transfer gave no answer");
  EXPECT_EQ(StatusLine(99, EmJob::kCreate), "status 99: unknown status");
}
