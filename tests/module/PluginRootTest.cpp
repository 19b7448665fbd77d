// The clean-up setup action on the real data directory /var/log/Korvex,
// through the loaded plug-in. Needs root (the directory lives under
// /var/log); skips itself otherwise. A directory already there is moved
// aside for the test and put back afterwards, never deleted.
#include "tests/module/ModuleTestSupport.h"
#include "tests/module/PluginHost.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace korvex_test;

namespace {

const char* const kDataDir = "/var/log/Korvex";

class RootCleanupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create " << kDataDir;
    ASSERT_TRUE(CPlugin::Instance().Loaded()) << CPlugin::Instance().Error();
    if (Exists(kDataDir)) {
      m_Aside = std::string(kDataDir) + ".test-aside-" + std::to_string(getpid());
      if (std::rename(kDataDir, m_Aside.c_str()) != 0) {
        m_Aside.clear();
        GTEST_SKIP() << kDataDir << " exists and cannot be moved aside: " << std::strerror(errno);
      }
    }
    halvane::TraceToMemory();
    halvane::SetTraceSwitch(true);
    halvane::SetTraceLevel(5);
    ASSERT_FALSE(m_Dir.Path().empty());
    SetToolRoot(m_Dir.Path());
    halvane::TakeTrace();
  }

  void TearDown() override {
    // Whatever the test left goes; the moved directory comes back.
    if (Exists(kDataDir)) {
      std::system((std::string("rm -rf '") + kDataDir + "'").c_str());
    }
    if (!m_Aside.empty()) {
      EXPECT_EQ(0, std::rename(m_Aside.c_str(), kDataDir)) << std::strerror(errno);
    }
    halvane::ClearRegistry();
    halvane::TakeTrace();
  }

  CTempDir m_Dir;
  std::string m_Aside;
};

}  // namespace

TEST_F(RootCleanupTest, RemovingTheRealDataDirectoryCompletelyReturns0) {
  ASSERT_EQ(0, mkdir(kDataDir, 0755));
  ASSERT_EQ(0, mkdir((std::string(kDataDir) + "/run1").c_str(), 0755));
  WriteFile(std::string(kDataDir) + "/summary.txt", "summary");
  WriteFile(m_Dir.Root() + "Korvex_Data.zip", "archive");

  // The removal stops at the subdirectory it removed completely ("run1" is
  // visited first) and judges that in reverse: the result is 0 and the
  // directory itself stays with the file not yet visited.
  EXPECT_EQ(0u, CPlugin::Instance().Library().SetupAction(4));
  EXPECT_FALSE(Exists(m_Dir.Root() + "Korvex_Data.zip"));
  EXPECT_FALSE(Exists(std::string(kDataDir) + "/run1"));
  EXPECT_TRUE(Exists(std::string(kDataDir) + "/summary.txt"));
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\nEM_KORVEX (SetupAct): Remove complete Korvex archive data dir \"/var/log/Korvex\"...",
       "\nCDirectory          : Remove directory \"/var/log/Korvex\"",
       "\nCDirectory          : Found dir: \"/var/log/Korvex/run1\"",
       "\nCDirectory          : ERROR cannot remove directory \"/var/log/Korvex/run1\": ",
       "\nEM_KORVEX           : <- SetupAction"}));

  // Second run: only the file is left, the directory goes and the result is
  // 0 again (complete removal).
  EXPECT_EQ(0u, CPlugin::Instance().Library().SetupAction(4));
  EXPECT_FALSE(Exists(kDataDir));
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\nCDirectory          : Remove file \"/var/log/Korvex/summary.txt\" OK!",
       "\nCDirectory          : Remove directory parent \"/var/log/Korvex/\"",
       "\nCDirectory          : ERROR cannot remove parent directory \"/var/log/Korvex/\": "}));

  // Nothing left to remove: 1.
  EXPECT_EQ(1u, CPlugin::Instance().Library().SetupAction(4));
}

TEST_F(RootCleanupTest, DataDirectoryLeftInPlaceReturns1) {
  ASSERT_EQ(0, mkdir(kDataDir, 0755));
  WriteFile(std::string(kDataDir) + "/.lock", "hidden files are never removed");
  WriteFile(std::string(kDataDir) + "/data.bin", "data");
  EXPECT_EQ(1u, CPlugin::Instance().Library().SetupAction(4));
  EXPECT_TRUE(Exists(std::string(kDataDir) + "/.lock"));
  EXPECT_FALSE(Exists(std::string(kDataDir) + "/data.bin"));
  EXPECT_TRUE(ContainsInOrder(
      halvane::TakeTrace(),
      {"\nCDirectory          : Remove directory parent \"/var/log/Korvex/\" OK!"}));
}

TEST_F(RootCleanupTest, NoDataDirectoryReturns1) {
  ASSERT_FALSE(Exists(kDataDir));
  EXPECT_EQ(1u, CPlugin::Instance().Library().SetupAction(4));
}
