// Whether a stored file replaced an earlier one of its name: decided by the
// final rename itself, so that what em-host reports is what happened.
#include "host/emhost/bmc/BmcDirectory.h"
#include "host/emhost/bmc/BmcFileTransfer.h"
#include "tests/emhost/bmc/BmcTestFiles.h"

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>

namespace {

using namespace korvex_test;

TEST(EmHostBmcReplace, RenameTellsWhetherAnEntryWasReplaced) {
  CBmcScratchDir scratch;
  const std::string bmc = scratch.Sub("bmc");
  CBmcDirectory dir(bmc);
  ASSERT_TRUE(dir.Valid()) << dir.Error();
  WriteFile(bmc + "/.first", "one");
  bool replaced = true;
  ASSERT_TRUE(dir.Replace(".first", "a.zip", replaced));
  EXPECT_FALSE(replaced);
  WriteFile(bmc + "/.second", "two");
  ASSERT_TRUE(dir.Replace(".second", "a.zip", replaced));
  EXPECT_TRUE(replaced);
  EXPECT_EQ(ReadFile(bmc + "/a.zip"), "two");
  EXPECT_EQ(Entries(bmc), (std::set<std::string>{"a.zip"}));
}

TEST(EmHostBmcReplace, ALinkOfTheNameIsReplacedAsALinkAndItsTargetIsUntouched) {
  CBmcScratchDir scratch;
  const std::string bmc = scratch.Sub("bmc");
  const std::string target = scratch.Path() + "/target";
  WriteFile(target, "keep");
  ASSERT_EQ(::symlink(target.c_str(), (bmc + "/a.zip").c_str()), 0);
  CBmcDirectory dir(bmc);
  WriteFile(bmc + "/.new", "new");
  bool replaced = false;
  ASSERT_TRUE(dir.Replace(".new", "a.zip", replaced));
  EXPECT_TRUE(replaced);
  EXPECT_EQ(ReadFile(target), "keep");
  EXPECT_EQ(ReadFile(bmc + "/a.zip"), "new");
}

TEST(EmHostBmcReplace, AFailedRenameSaysSoAndReplacesNothing) {
  CBmcScratchDir scratch;
  const std::string bmc = scratch.Sub("bmc");
  CBmcDirectory dir(bmc);
  bool replaced = true;
  EXPECT_FALSE(dir.Replace(".missing", "a.zip", replaced));
  EXPECT_FALSE(replaced);
  EXPECT_TRUE(Entries(bmc).empty());
}

TEST(EmHostBmcReplace, ATransferRecordsWhetherItReplacedAnEarlierFile) {
  CBmcScratchDir scratch;
  const std::string bmc = scratch.Sub("bmc");
  const std::string source = scratch.Path() + "/src";
  WriteFile(source, Pattern(10000));
  CBmcFileTransfer transfer(bmc);
  CBmcTransferJob first;
  ASSERT_EQ(RunTransfer(transfer, source, "a.zip", 30, first), korvex::kStatusDone);
  EXPECT_FALSE(first.m_Replaced);
  CBmcTransferJob second;
  ASSERT_EQ(RunTransfer(transfer, source, "a.zip", 30, second), korvex::kStatusDone);
  EXPECT_TRUE(second.m_Replaced);
  CBmcTransferJob other;
  ASSERT_EQ(RunTransfer(transfer, source, "b.zip", 30, other), korvex::kStatusDone);
  EXPECT_FALSE(other.m_Replaced);
}

}  // namespace
