// Tests of the BMC stand-in's copy and of the switch around it: the verified
// copy engine, sources that are not regular files, the switch's wait that
// follows "TO", the cancel when em-host stops the module, the progress
// text, the default "TO" of the command line, and serve's bookkeeping of
// requests that may still be answered.
#include "host/emhost/bmc/BmcFileTransfer.h"
#include "host/emhost/bmc/CopyEngine.h"
#include "host/emhost/switch/HostSwitch.h"
#include "host/emhost/bmc/Sha256.h"
#include "message/SipJson.h"
#include "tests/emhost/TransferRequests.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

// A scratch directory of this suite.
class CTempDir : public korvex_test::CTempDir {
 public:
  CTempDir() : korvex_test::CTempDir("emhost-transfer", "/var/tmp") {}
};

using korvex_test::BuildTransfer;
using korvex_test::Entries;
using korvex_test::ReadFile;
using korvex_test::Sha256Hex;
using korvex_test::WriteFile;

// Bytes that differ from chunk to chunk, so a chunk written at the wrong
// offset shows.
std::string Pattern(std::size_t size) {
  std::string data(size, '\0');
  unsigned int state = 12345u;
  for (char& c : data) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>(state >> 24);
  }
  return data;
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Waits up to 10 s for a hidden temporary file in dir: a copy under way.
bool CopyUnderWay(const std::string& dir) {
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    for (const std::string& name : Entries(dir)) {
      if (!name.empty() && name[0] == '.') return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

}  // namespace

// ----- the copy engine -------------------------------------------------------------

TEST(EmHostCopyEngine, CopiesAndDigestsFilesOfEverySizeAroundTheChunks) {
  CTempDir dir;
  const CCopySettings settings{4096, 3, 0};
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097},
        std::size_t{3 * 4096}, std::size_t{10 * 4096 + 17}}) {
    const std::string data = Pattern(size);
    WriteFile(dir.Path() + "/src", data);
    const int source = ::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC);
    const int target =
        ::open((dir.Path() + "/dst").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(source, 0);
    ASSERT_GE(target, 0);
    const CCopyResult result = CopyVerified(source, target, -1, settings, nullptr, nullptr);
    ::close(source);
    ::close(target);
    ASSERT_EQ(result.m_Outcome, CopyOutcome::kDone) << size << ": " << result.m_Why;
    EXPECT_EQ(result.m_Bytes, size);
    EXPECT_EQ(result.m_Sha256, Sha256Hex(data)) << size;
    EXPECT_EQ(ReadFile(dir.Path() + "/dst"), data) << size;
  }
}

TEST(EmHostCopyEngine, DirectReadBackComesFromTheDeviceWhereTheFileSystemAllows) {
  CTempDir dir;
  const std::string data = Pattern(5 * 4096 + 100);
  WriteFile(dir.Path() + "/src", data);
  const int source = ::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC);
  const int target =
      ::open((dir.Path() + "/dst").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const int direct = ::open((dir.Path() + "/dst").c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  if (direct < 0) {
    ::close(source);
    ::close(target);
    GTEST_SKIP() << "no direct I/O on " << dir.Path();
  }
  CCopyProgress progress;
  const CCopyResult result =
      CopyVerified(source, target, direct, CCopySettings{4096, 2, 0}, nullptr, &progress);
  ::close(source);
  ::close(target);
  ::close(direct);
  ASSERT_EQ(result.m_Outcome, CopyOutcome::kDone) << result.m_Why;
  EXPECT_TRUE(result.m_FromDevice);
  EXPECT_EQ(result.m_Sha256, Sha256Hex(data));
  EXPECT_EQ(progress.m_Copied.load(), data.size());
}

TEST(EmHostCopyEngine, ACopyThatReadsBackDifferentlyIsAMismatch) {
  // The read-back descriptor names another file: what is read back is not
  // what was written, and the copy must not pass.
  CTempDir dir;
  const std::string data = Pattern(3 * 4096);
  WriteFile(dir.Path() + "/src", data);
  std::string other = data;
  other[2 * 4096 + 5] ^= 1;
  WriteFile(dir.Path() + "/other", other);
  const int source = ::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC);
  const int target =
      ::open((dir.Path() + "/dst").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int readBack = ::open((dir.Path() + "/other").c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  if (readBack < 0) readBack = ::open((dir.Path() + "/other").c_str(), O_RDONLY | O_CLOEXEC);
  const CCopyResult result =
      CopyVerified(source, target, readBack, CCopySettings{4096, 2, 0}, nullptr, nullptr);
  ::close(source);
  ::close(target);
  ::close(readBack);
  EXPECT_EQ(result.m_Outcome, CopyOutcome::kMismatch);
  EXPECT_NE(result.m_Why.find("offset 8192"), std::string::npos) << result.m_Why;
}

TEST(EmHostCopyEngine, StopCheckEndsTheCopy) {
  CTempDir dir;
  WriteFile(dir.Path() + "/src", Pattern(20 * 4096));
  const int source = ::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC);
  const int target =
      ::open((dir.Path() + "/dst").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  int chunks = 0;
  const CCopyResult result = CopyVerified(
      source, target, -1, CCopySettings{4096, 2, 0}, [&] { return ++chunks == 3; }, nullptr);
  ::close(source);
  ::close(target);
  EXPECT_EQ(result.m_Outcome, CopyOutcome::kStopped);
  EXPECT_EQ(result.m_Bytes, 3u * 4096u);
}

// A copy written with direct I/O: the engine sees O_DIRECT on the target.
// Chunks of 4096 bytes, two of them held.
const CCopySettings kDirectSmall{4096, 2, 0, false, 4096, 2, 0};

int OpenDirectTarget(const std::string& path) {
  return ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_DIRECT | O_CLOEXEC, 0600);
}

TEST(EmHostCopyEngine, DirectCopyOfEverySizeAroundTheChunksIsExactAndFromTheDevice) {
  CTempDir dir;
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097},
        std::size_t{3 * 4096}, std::size_t{10 * 4096 + 17}}) {
    const std::string data = Pattern(size);
    WriteFile(dir.Path() + "/src", data);
    const int target = OpenDirectTarget(dir.Path() + "/dst");
    if (target < 0) GTEST_SKIP() << "no direct I/O on " << dir.Path();
    const int source = ::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(source, 0);
    CCopyProgress progress;
    const CCopyResult result = CopyVerified(source, target, -1, kDirectSmall, nullptr, &progress);
    ::close(source);
    ::close(target);
    ASSERT_EQ(result.m_Outcome, CopyOutcome::kDone) << size << ": " << result.m_Why;
    EXPECT_TRUE(result.m_FromDevice) << size;
    EXPECT_EQ(result.m_Bytes, size);
    EXPECT_EQ(progress.m_Copied.load(), size);
    EXPECT_EQ(result.m_Sha256, Sha256Hex(data)) << size;
    // Exactly the source: the padding of the last block is cut off again.
    EXPECT_EQ(ReadFile(dir.Path() + "/dst"), data) << size;
  }
}

TEST(EmHostCopyEngine, DirectCopyThatReadsBackDifferentlyIsAMismatch) {
  CTempDir dir;
  const std::string data = Pattern(3 * 4096);
  WriteFile(dir.Path() + "/src", data);
  std::string other = data;
  other[2 * 4096 + 5] ^= 1;
  WriteFile(dir.Path() + "/other", other);
  const int target = OpenDirectTarget(dir.Path() + "/dst");
  if (target < 0) GTEST_SKIP() << "no direct I/O on " << dir.Path();
  const int source = ::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC);
  const int readBack = ::open((dir.Path() + "/other").c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  ASSERT_GE(readBack, 0);
  const CCopyResult result = CopyVerified(source, target, readBack, kDirectSmall, nullptr, nullptr);
  ::close(source);
  ::close(target);
  ::close(readBack);
  EXPECT_EQ(result.m_Outcome, CopyOutcome::kMismatch);
  EXPECT_NE(result.m_Why.find("offset 8192"), std::string::npos) << result.m_Why;
}

TEST(EmHostCopyEngine, StopCheckEndsTheDirectCopy) {
  CTempDir dir;
  WriteFile(dir.Path() + "/src", Pattern(20 * 4096));
  const int target = OpenDirectTarget(dir.Path() + "/dst");
  if (target < 0) GTEST_SKIP() << "no direct I/O on " << dir.Path();
  const int source = ::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC);
  int chunks = 0;
  const CCopyResult result = CopyVerified(
      source, target, -1, kDirectSmall, [&] { return ++chunks == 3; }, nullptr);
  ::close(source);
  ::close(target);
  EXPECT_EQ(result.m_Outcome, CopyOutcome::kStopped);
  EXPECT_EQ(result.m_Bytes, 3u * 4096u);
}

TEST(EmHostBmcCopy, LargeFilesAreStoredWithDirectIoAndSmallOnesThroughThePageCache) {
  CTempDir dir;
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
    ASSERT_EQ(job.m_Status, static_cast<unsigned int>(BMC_OK)) << job.m_Message;
    EXPECT_EQ(job.m_ReadBackFromDevice, directFrom <= content.size()) << directFrom;
    EXPECT_EQ(ReadFile(bmc + "/out.zip"), content);
    EXPECT_EQ(ReadFile(bmc + "/out.zip.sha256"), Sha256Hex(content) + "  out.zip\n");
  }
}

// ----- sources that are not regular files ---------------------------------------------

TEST(EmHostBmcSource, LinkFifoDirectoryAndDeviceAreRefusedAndNamed) {
  CTempDir dir;
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
    EXPECT_EQ(job.m_Status, static_cast<unsigned int>(BMC_SOURCE_UNREADABLE)) << c.m_Path;
    EXPECT_EQ(job.m_Message, c.m_Path + c.m_Says);
    // A FIFO without a writer would block a plain open for good.
    EXPECT_LT(SecondsSince(start), 5.0) << c.m_Path;
  }
  EXPECT_TRUE(Entries(bmc).empty());
}

TEST(EmHostBmcSource, MissingBmcDirectoryIsNamed) {
  CTempDir dir;
  WriteFile(dir.Path() + "/src", "x");
  CBmcFileTransfer transfer(dir.Path() + "/nowhere");
  CBmcTransferRequest request{2, dir.Path() + "/src", "x.zip", 0};
  CBmcTransferJob job;
  transfer.Run(request, job);
  EXPECT_EQ(job.m_Status, static_cast<unsigned int>(BMC_WRITE_FAILED));
  EXPECT_EQ(job.m_Message,
            "the BMC directory " + dir.Path() + "/nowhere: No such file or directory");
}

// ----- the switch's wait follows "TO" ------------------------------------------------

TEST(EmHostSwitchWait, TheSendersTimeOutIsTheLeastAndToAddsItsGrace) {
  EXPECT_EQ(CHostSwitch::TransferWaitMs(5000, 0), 5000u);
  EXPECT_EQ(CHostSwitch::TransferWaitMs(5000, 29), 29000u + kTransferAnswerGraceMs);
  EXPECT_EQ(CHostSwitch::TransferWaitMs(60000, 1), 60000u);
  EXPECT_EQ(CHostSwitch::TransferWaitMs(5000, 65535), 65535000ull + kTransferAnswerGraceMs);
}

// 128 chunks of 4 KiB with 50 ms after each: a copy of about 6.4 s, longer
// than the 5000 ms the module passes.
const CCopySettings kSlowDisk{4096, 2, 50};
constexpr std::size_t kSlowFile = 128 * 4096;

TEST(EmHostSwitchWait, ACopyLongerThanFiveSecondsSucceedsWithinItsTo) {
  CTempDir dir;
  const std::string bmc = dir.Sub("bmc");
  const std::string data = Pattern(kSlowFile);
  WriteFile(dir.Path() + "/src", data);
  CHostSwitch hostSwitch(5, CHtiMode{}, bmc, kSlowDisk);
  SipJson request;
  BuildTransfer(request, dir.Path() + "/src", "slow.zip", 29);
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, request, 5000), 1);
  const double seconds = SecondsSince(start);
  EXPECT_EQ(request.Status(), static_cast<unsigned int>(BMC_OK));
  EXPECT_GT(seconds, 5.0);  // the premise: the copy did outlive 5 s
  EXPECT_EQ(ReadFile(bmc + "/slow.zip"), data);
  EXPECT_EQ(Entries(bmc), (std::set<std::string>{"slow.zip", "slow.zip.sha256"}));
}

TEST(EmHostSwitchWait, ACopyLongerThanItsToAnswersElevenAndLeavesNothing) {
  CTempDir dir;
  const std::string bmc = dir.Sub("bmc");
  WriteFile(dir.Path() + "/src", Pattern(kSlowFile));
  CHostSwitch hostSwitch(5, CHtiMode{}, bmc, kSlowDisk);
  SipJson request;
  BuildTransfer(request, dir.Path() + "/src", "late.zip", 2);
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, request, 5000), 1);
  EXPECT_EQ(request.Status(), static_cast<unsigned int>(BMC_TIMED_OUT));
  EXPECT_TRUE(Entries(bmc).empty());
}

// ----- stopping cancels ---------------------------------------------------------------

TEST(EmHostSwitchStop, StopDuringACopyRemovesItAndItNeverAppears) {
  CTempDir dir;
  const std::string bmc = dir.Sub("bmc");
  WriteFile(dir.Path() + "/src", Pattern(kSlowFile));
  CHostSwitch hostSwitch(5, CHtiMode{}, bmc, kSlowDisk);
  SipJson request;
  BuildTransfer(request, dir.Path() + "/src", "stopped.zip", 60);
  int result = -1;
  std::thread worker([&] { result = hostSwitch.AsyncRequest(nullptr, request, 5000); });
  ASSERT_TRUE(CopyUnderWay(bmc));
  hostSwitch.StopTransfers();
  // The temporary file is gone when StopTransfers returns.
  EXPECT_TRUE(Entries(bmc).empty());
  worker.join();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(request.Status(), 22u);  // no status: the module reads 22
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(Entries(bmc).empty());

  // While stopped no copy starts; allowed again, one does.
  SipJson refused;
  BuildTransfer(refused, dir.Path() + "/src", "refused.zip", 60);
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, refused, 5000), 0);
  EXPECT_TRUE(Entries(bmc).empty());
  hostSwitch.AllowTransfers();
  WriteFile(dir.Path() + "/small", "small");
  SipJson again;
  BuildTransfer(again, dir.Path() + "/small", "again.zip", 60);
  EXPECT_EQ(hostSwitch.AsyncRequest(nullptr, again, 5000), 1);
  EXPECT_EQ(again.Status(), 0u);
  EXPECT_EQ(ReadFile(bmc + "/again.zip"), "small");
}

TEST(EmHostSwitchStop, ProgressShowsTheCopyUnderWay) {
  CTempDir dir;
  const std::string bmc = dir.Sub("bmc");
  WriteFile(dir.Path() + "/src", Pattern(kSlowFile));
  CHostSwitch hostSwitch(5, CHtiMode{}, bmc, kSlowDisk);
  SipJson request;
  BuildTransfer(request, dir.Path() + "/src", "p.zip", 60);
  std::thread worker([&] { hostSwitch.AsyncRequest(nullptr, request, 5000); });
  ASSERT_TRUE(CopyUnderWay(bmc));
  CTransferProgress progress;
  bool seen = false;
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (!seen && Clock::now() < deadline) {
    seen = hostSwitch.TransferProgress(progress) && progress.m_Copied > 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  hostSwitch.StopTransfers();
  worker.join();
  ASSERT_TRUE(seen);
  EXPECT_EQ(progress.m_Total, kSlowFile);
  EXPECT_LT(progress.m_Copied, kSlowFile);
}
