// Tests of the verified copy engine: the buffered and the direct copy of
// files of every size around the chunks, the read-back that must match, and
// the stop check between chunks.
#include "host/emhost/bmc/CopyEngine.h"
#include "tests/emhost/TransferRequests.h"
#include "tests/emhost/bmc/BmcTestFiles.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

using korvex_test::CBmcScratchDir;
using korvex_test::Pattern;
using korvex_test::ReadFile;
using korvex_test::Sha256Hex;
using korvex_test::WriteFile;

// A copy written with direct I/O: the engine sees O_DIRECT on the target.
// Chunks of 4096 bytes, two of them held.
const CCopySettings kDirectSmall{4096, 2, 0, false, 4096, 2, 0};

int OpenDirectTarget(const std::string& path) {
  return ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_DIRECT | O_CLOEXEC, 0600);
}

}  // namespace

TEST(EmHostCopyEngine, CopiesAndDigestsFilesOfEverySizeAroundTheChunks) {
  CBmcScratchDir dir;
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
  CBmcScratchDir dir;
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
  CBmcScratchDir dir;
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
  CBmcScratchDir dir;
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

TEST(EmHostCopyEngine, DirectCopyOfEverySizeAroundTheChunksIsExactAndFromTheDevice) {
  CBmcScratchDir dir;
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
  CBmcScratchDir dir;
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
  CBmcScratchDir dir;
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
