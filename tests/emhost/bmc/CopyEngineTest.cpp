// Tests of the verified copy engine: the buffered and the direct copy of
// files of every size around the chunks, the read-back that must match, and
// the stop check between chunks.
#include "host/emhost/bmc/CopyEngine.h"
#include "tests/emhost/TransferRequests.h"
#include "tests/emhost/bmc/BmcTestFiles.h"
#include "util/Fd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <functional>
#include <string>
#include <unistd.h>

namespace {

using korvex::CFd;
using korvex_test::CBmcScratchDir;
using korvex_test::Pattern;
using korvex_test::ReadFile;
using korvex_test::Sha256Hex;
using korvex_test::WriteFile;

// A copy written with direct I/O: the engine sees O_DIRECT on the target.
// Chunks of 4096 bytes, two of them held.
const CCopySettings kDirectSmall{4096, 2, 0, false, 4096, 2, 0};
const CCopySettings kBufferedSmall{4096, 2, 0};

const std::size_t kSizesAroundTheChunks[] = {0, 1, 4095, 4096, 4097, 3 * 4096, 10 * 4096 + 17};

// The copy's target "dst" in dir, empty; with O_DIRECT when direct (none
// held where the file system refuses direct I/O).
CFd OpenTarget(const CBmcScratchDir& dir, bool direct) {
  const int flags = O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | (direct ? O_DIRECT : 0);
  return CFd(::open((dir.Path() + "/dst").c_str(), flags, 0600));
}

// Copies dir's "src" into target as CopyVerified does.
CCopyResult CopySource(const CBmcScratchDir& dir, const CFd& target, int readBack,
                       const CCopySettings& settings, const std::function<bool()>& stop = nullptr,
                       CCopyProgress* progress = nullptr) {
  const CFd source(::open((dir.Path() + "/src").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(source.Valid());
  EXPECT_TRUE(target.Valid());
  return CopyVerified(source.Get(), target.Get(), readBack, settings, stop, progress);
}

// Writes data as "src" and, as "other", the same bytes but one in the third
// chunk: a copy read back from "other" differs from its source at 8192.
void WriteSourceAndAlteredCopy(const CBmcScratchDir& dir, const std::string& data) {
  WriteFile(dir.Path() + "/src", data);
  std::string other = data;
  other[2 * 4096 + 5] ^= 1;
  WriteFile(dir.Path() + "/other", other);
}

void ExpectMismatchInTheThirdChunk(const CCopyResult& result) {
  EXPECT_EQ(result.m_Outcome, CopyOutcome::kMismatch);
  EXPECT_NE(result.m_Why.find("offset 8192"), std::string::npos) << result.m_Why;
}

// A stop check that asks to end after the third chunk.
void ExpectStopAfterThreeChunks(const CBmcScratchDir& dir, const CFd& target,
                                const CCopySettings& settings) {
  int chunks = 0;
  const CCopyResult result = CopySource(
      dir, target, -1, settings, [&] { return ++chunks == 3; }, nullptr);
  EXPECT_EQ(result.m_Outcome, CopyOutcome::kStopped);
  EXPECT_EQ(result.m_Bytes, 3u * 4096u);
}

}  // namespace

TEST(EmHostCopyEngine, CopiesAndDigestsFilesOfEverySizeAroundTheChunks) {
  CBmcScratchDir dir;
  const CCopySettings settings{4096, 3, 0};
  for (const std::size_t size : kSizesAroundTheChunks) {
    const std::string data = Pattern(size);
    WriteFile(dir.Path() + "/src", data);
    const CCopyResult result = CopySource(dir, OpenTarget(dir, false), -1, settings);
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
  const CFd target = OpenTarget(dir, false);
  const CFd direct(::open((dir.Path() + "/dst").c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (!direct.Valid()) GTEST_SKIP() << "no direct I/O on " << dir.Path();
  CCopyProgress progress;
  const CCopyResult result =
      CopySource(dir, target, direct.Get(), kBufferedSmall, nullptr, &progress);
  ASSERT_EQ(result.m_Outcome, CopyOutcome::kDone) << result.m_Why;
  EXPECT_TRUE(result.m_FromDevice);
  EXPECT_EQ(result.m_Sha256, Sha256Hex(data));
  EXPECT_EQ(progress.m_Copied.load(), data.size());
}

TEST(EmHostCopyEngine, ACopyThatReadsBackDifferentlyIsAMismatch) {
  // The read-back descriptor names another file: what is read back is not
  // what was written, and the copy must not pass.
  CBmcScratchDir dir;
  WriteSourceAndAlteredCopy(dir, Pattern(3 * 4096));
  const std::string other = dir.Path() + "/other";
  CFd readBack(::open(other.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (!readBack.Valid()) readBack.Reset(::open(other.c_str(), O_RDONLY | O_CLOEXEC));
  ExpectMismatchInTheThirdChunk(
      CopySource(dir, OpenTarget(dir, false), readBack.Get(), kBufferedSmall));
}

TEST(EmHostCopyEngine, StopCheckEndsTheCopy) {
  CBmcScratchDir dir;
  WriteFile(dir.Path() + "/src", Pattern(20 * 4096));
  ExpectStopAfterThreeChunks(dir, OpenTarget(dir, false), kBufferedSmall);
}

TEST(EmHostCopyEngine, DirectCopyOfEverySizeAroundTheChunksIsExactAndFromTheDevice) {
  CBmcScratchDir dir;
  for (const std::size_t size : kSizesAroundTheChunks) {
    const std::string data = Pattern(size);
    WriteFile(dir.Path() + "/src", data);
    const CFd target = OpenTarget(dir, true);
    if (!target.Valid()) GTEST_SKIP() << "no direct I/O on " << dir.Path();
    CCopyProgress progress;
    const CCopyResult result = CopySource(dir, target, -1, kDirectSmall, nullptr, &progress);
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
  WriteSourceAndAlteredCopy(dir, Pattern(3 * 4096));
  const CFd target = OpenTarget(dir, true);
  if (!target.Valid()) GTEST_SKIP() << "no direct I/O on " << dir.Path();
  const CFd readBack(::open((dir.Path() + "/other").c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  ASSERT_TRUE(readBack.Valid());
  ExpectMismatchInTheThirdChunk(CopySource(dir, target, readBack.Get(), kDirectSmall));
}

TEST(EmHostCopyEngine, StopCheckEndsTheDirectCopy) {
  CBmcScratchDir dir;
  WriteFile(dir.Path() + "/src", Pattern(20 * 4096));
  const CFd target = OpenTarget(dir, true);
  if (!target.Valid()) GTEST_SKIP() << "no direct I/O on " << dir.Path();
  ExpectStopAfterThreeChunks(dir, target, kDirectSmall);
}
