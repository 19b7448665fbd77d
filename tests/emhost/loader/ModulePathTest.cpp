// Where em-host finds the module without --module: the installed tree's
// private directory first, then the build tree's lib directory, both seen
// from the directory of the executable.
#include "host/emhost/loader/ModuleHost.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using korvex_test::CTempDir;
using korvex_test::WriteFile;

// prefix/relative with its parents, made as needed.
std::string MakeDirs(const std::string& prefix, const std::string& relative) {
  const std::string path = prefix + "/" + relative;
  std::filesystem::create_directories(path);
  return path;
}

std::string Resolved(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : "";
}

// The installed module's directory below the prefix: the multiarch one
// where the platform has it.
const std::string kPrivateDir = KORVEX_TEST_INSTALLED_MODULE_DIR;

// A prefix with bin/ and the two library directories a tree may have.
class ModulePath : public ::testing::Test {
 protected:
  ModulePath()
      : m_Prefix("emhost-module-path"),
        m_Bin(m_Prefix.Sub("bin")),
        m_Lib(m_Prefix.Sub("lib")),
        m_Private(MakeDirs(m_Prefix.Path(), kPrivateDir)) {}

  CTempDir m_Prefix;
  std::string m_Bin, m_Lib, m_Private;
};

// The package puts em-host in /usr/bin and the module in the private
// directory (on Debian /usr/lib/<triplet>/em-korvex); the build tree has
// bin/ and lib/ side by side.
TEST_F(ModulePath, LooksInThePrivateDirectoryThenInTheBuildTreesLib) {
  EXPECT_EQ(kPrivateDir.rfind("lib/", 0), 0u);
  EXPECT_EQ(kPrivateDir.substr(kPrivateDir.size() - 10), "/em-korvex");
  EXPECT_EQ(ModuleSearchPaths("/usr/bin"),
            (std::vector<std::string>{"/usr/bin/../" + kPrivateDir + "/libEM_KORVEX.so",
                                      "/usr/bin/../lib/libEM_KORVEX.so"}));
}

TEST_F(ModulePath, AnInstalledModuleComesFirst) {
  WriteFile(m_Private + "/libEM_KORVEX.so", "installed");
  WriteFile(m_Lib + "/libEM_KORVEX.so", "built");
  EXPECT_EQ(DefaultModulePath(m_Bin), Resolved(m_Private + "/libEM_KORVEX.so"));
}

TEST_F(ModulePath, TheBuildTreesModuleWhenNoneIsInstalled) {
  WriteFile(m_Lib + "/libEM_KORVEX.so", "built");
  EXPECT_EQ(DefaultModulePath(m_Bin), Resolved(m_Lib + "/libEM_KORVEX.so"));
}

// Something that is not a file where the installed module belongs (here a
// directory) is passed over rather than handed to dlopen.
TEST_F(ModulePath, ADirectoryInTheModulesPlaceIsPassedOver) {
  ::mkdir((m_Private + "/libEM_KORVEX.so").c_str(), 0755);
  WriteFile(m_Lib + "/libEM_KORVEX.so", "built");
  EXPECT_EQ(DefaultModulePath(m_Bin), Resolved(m_Lib + "/libEM_KORVEX.so"));
}

// With no module anywhere, the message names where an installed em-host
// expects it, as given (nothing to resolve).
TEST_F(ModulePath, WithoutAModuleTheInstalledLocationIsNamed) {
  EXPECT_EQ(DefaultModulePath(m_Bin), m_Bin + "/../" + kPrivateDir + "/libEM_KORVEX.so");
}

TEST(ExecutableDir, IsTheDirectoryOfTheRunningProgram) {
  const std::string dir = ExecutableDir();
  ASSERT_FALSE(dir.empty());
  EXPECT_EQ(dir + "/emhost_loader_tests", Resolved("/proc/self/exe"));
}

}  // namespace
