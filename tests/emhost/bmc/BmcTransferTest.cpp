// Tests of the stand-in BMC file-transfer module alone: the digest, the
// names it accepts, the request it reads, and the verified, all-or-nothing
// copy into the BMC directory with what it answers when it cannot make one.
#include "host/emhost/bmc/BmcFileTransfer.h"
#include "host/emhost/bmc/Sha256.h"
#include "message/SipJson.h"
#include "tests/emhost/TransferRequests.h"
#include "tests/emhost/bmc/BmcTestFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace korvex_test;

int OpenDirectTarget(const std::string& path) {
  return ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_DIRECT | O_CLOEXEC, 0600);
}

}  // namespace

TEST(EmHostSha256, KnownDigests) {
  EXPECT_EQ(Sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(EmHostSha256, FileDigestAndUnreadableFile) {
  CBmcScratchDir dir;
  WriteFile(dir.Path() + "/f", "abc");
  std::string hex;
  ASSERT_TRUE(Sha256OfFile(dir.Path() + "/f", hex, nullptr));
  EXPECT_EQ(hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  std::string error;
  EXPECT_FALSE(Sha256OfFile(dir.Path() + "/missing", hex, &error));
  EXPECT_EQ(error, dir.Path() + "/missing: No such file or directory");
}

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

TEST(EmHostBmcRequest, ReadsTheModulesRequest) {
  SipJson request;
  BuildTransfer(request, "/r/Korvex_Data.zip", "n.zip", 29);
  CBmcTransferRequest parsed;
  ASSERT_EQ(CBmcFileTransfer::ParseRequest(request, parsed), korvex::kStatusDone);
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
  ASSERT_EQ(CBmcFileTransfer::ParseRequest(request, parsed), korvex::kStatusDone);
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
    EXPECT_EQ(CBmcFileTransfer::ParseRequest(request, parsed), korvex::kStatusBmcBadRequest)
        << text;
  }
}

TEST(EmHostBmcCopy, StoresVerifiedCopyAndChecksumLine) {
  CBmcScratchDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  const std::string content(300000, 'k');
  WriteFile(dir.Path() + "/Korvex_Data.zip", content);
  CBmcFileTransfer transfer(bmc);
  CBmcTransferJob job;
  ASSERT_EQ(RunTransfer(transfer, dir.Path() + "/Korvex_Data.zip", "out.zip", 0, job),
            korvex::kStatusDone);
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
  CBmcScratchDir dir;
  WriteFile(dir.Path() + "/src", "new");
  WriteFile(dir.Path() + "/out.zip", "old and longer");
  CBmcFileTransfer transfer(dir.Path());
  CBmcTransferJob job;
  ASSERT_EQ(RunTransfer(transfer, dir.Path() + "/src", "out.zip", 0, job), korvex::kStatusDone);
  EXPECT_EQ(ReadFile(dir.Path() + "/out.zip"), "new");
}

TEST(EmHostBmcCopy, RefusedNameCopiesNothing) {
  CBmcScratchDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  WriteFile(dir.Path() + "/src", "x");
  CBmcFileTransfer transfer(bmc);
  for (const char* name : {"", "/abs.zip", "../up.zip", "a/b.zip"}) {
    CBmcTransferJob job;
    EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/src", name, 0, job),
              korvex::kStatusBmcNameRefused)
        << name;
  }
  EXPECT_TRUE(Entries(bmc).empty());
  EXPECT_EQ(Entries(dir.Path()), (std::set<std::string>{"bmc", "src"}));
}

TEST(EmHostBmcCopy, UnreadableSourceIsReported) {
  CBmcScratchDir dir;
  CBmcFileTransfer transfer(dir.Path());
  CBmcTransferJob missing;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/missing", "x", 0, missing),
            korvex::kStatusBmcSourceUnreadable);
  ASSERT_EQ(::mkdir((dir.Path() + "/adir").c_str(), 0755), 0);
  CBmcTransferJob directory;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/adir", "x", 0, directory),
            korvex::kStatusBmcSourceUnreadable);
  EXPECT_EQ(Entries(dir.Path()), (std::set<std::string>{"adir"}));
}

TEST(EmHostBmcCopy, MissingBmcDirectoryIsAWriteFailure) {
  CBmcScratchDir dir;
  WriteFile(dir.Path() + "/src", "x");
  CBmcFileTransfer transfer(dir.Path() + "/nowhere");
  CBmcTransferJob job;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/src", "x", 0, job), korvex::kStatusBmcWriteFailed);
}

TEST(EmHostBmcCopy, TimeLimitLeavesNoFileBehind) {
  CBmcScratchDir dir;
  const std::string bmc = dir.Path() + "/bmc";
  ASSERT_EQ(::mkdir(bmc.c_str(), 0755), 0);
  WriteFile(dir.Path() + "/src", std::string(64 * 4096, 's'));
  // 64 chunks of 4 KiB with 50 ms after each: about 3 s, beyond "TO" 1.
  CBmcFileTransfer transfer(bmc, CCopySettings{4096, 2, 50});
  CBmcTransferJob job;
  EXPECT_EQ(RunTransfer(transfer, dir.Path() + "/src", "slow.zip", 1, job),
            korvex::kStatusBmcTimedOut);
  EXPECT_TRUE(Entries(bmc).empty());
}

TEST(EmHostBmcCopy, CancelledCopyNeverAppears) {
  CBmcScratchDir dir;
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
  EXPECT_NE(job.m_Status, korvex::kStatusDone);
  EXPECT_TRUE(Entries(bmc).empty());
}

TEST(EmHostBmcCopy, LargeFilesAreStoredWithDirectIoAndSmallOnesThroughThePageCache) {
  CBmcScratchDir dir;
  const std::string bmc = dir.Sub("bmc");
  const int probe = OpenDirectTarget(bmc + "/probe");
  if (probe < 0) GTEST_SKIP() << "no direct I/O on " << bmc;
  ::close(probe);
  ::unlink((bmc + "/probe").c_str());
  const std::string content = Pattern(5 * 4096 + 3);
  WriteFile(dir.Path() + "/src", content);
  for (const std::uint64_t directFrom : {std::uint64_t{5 * 4096}, std::uint64_t{6 * 4096}}) {
    CCopySettings settings;
    settings.m_DirectFromBytes = directFrom;
    CBmcFileTransfer transfer(bmc, settings);
    CBmcTransferRequest request;
    request.m_FileType = 2;
    request.m_LocalPath = dir.Path() + "/src";
    request.m_BmcName = "out.zip";
    CBmcTransferJob job;
    transfer.Run(request, job);
    ASSERT_EQ(job.m_Status, korvex::kStatusDone) << job.m_Message;
    EXPECT_EQ(job.m_ReadBackFromDevice, directFrom <= content.size()) << directFrom;
    EXPECT_EQ(ReadFile(bmc + "/out.zip"), content);
    EXPECT_EQ(ReadFile(bmc + "/out.zip.sha256"), Sha256Hex(content) + "  out.zip\n");
  }
}

TEST(EmHostBmcSource, LinkFifoDirectoryAndDeviceAreRefusedAndNamed) {
  CBmcScratchDir dir;
  const std::string bmc = dir.Sub("bmc");
  WriteFile(dir.Path() + "/secret", "not to be copied\n");
  ASSERT_EQ(::symlink((dir.Path() + "/secret").c_str(), (dir.Path() + "/link.zip").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir.Path() + "/fifo.zip").c_str(), 0600), 0);
  dir.Sub("dir.zip");
  struct CCase {
    std::string m_Path;
    std::string m_Says;
  };
  const CCase cases[] = {
      {dir.Path() + "/link.zip", " is a symbolic link (not followed)"},
      {dir.Path() + "/fifo.zip", " is a FIFO, not a regular file"},
      {dir.Path() + "/dir.zip", " is a directory, not a regular file"},
      {"/dev/null", " is a character device, not a regular file"},
  };
  CBmcFileTransfer transfer(bmc);
  for (const CCase& c : cases) {
    CBmcTransferRequest request;
    request.m_FileType = 2;
    request.m_LocalPath = c.m_Path;
    request.m_BmcName = "out.zip";
    request.m_TimeoutSec = 30;
    CBmcTransferJob job;
    const Clock::time_point start = Clock::now();
    transfer.Run(request, job);
    EXPECT_EQ(job.m_Status, static_cast<unsigned int>(korvex::kStatusBmcSourceUnreadable))
        << c.m_Path;
    EXPECT_EQ(job.m_Message, c.m_Path + c.m_Says);
    // A FIFO without a writer would block a plain open for good.
    EXPECT_LT(SecondsSince(start), 5.0) << c.m_Path;
  }
  EXPECT_TRUE(Entries(bmc).empty());
}

TEST(EmHostBmcSource, MissingBmcDirectoryIsNamed) {
  CBmcScratchDir dir;
  WriteFile(dir.Path() + "/src", "x");
  CBmcFileTransfer transfer(dir.Path() + "/nowhere");
  CBmcTransferRequest request{2, dir.Path() + "/src", "x.zip", 0};
  CBmcTransferJob job;
  transfer.Run(request, job);
  EXPECT_EQ(job.m_Status, static_cast<unsigned int>(korvex::kStatusBmcWriteFailed));
  EXPECT_EQ(job.m_Message,
            "the BMC directory " + dir.Path() + "/nowhere: No such file or directory");
}
