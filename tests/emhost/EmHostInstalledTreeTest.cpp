// em-host as "cmake --install" lays it out (the same rules the Debian
// package is made from): it finds its module in the private library
// directory, --module still chooses another, and the docs and examples are
// there.
#include "tests/support/ChildProcess.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/stat.h>

namespace {

using korvex_test::CFinished;
using korvex_test::CTempDir;
using korvex_test::Lines;
using korvex_test::RunProgram;

const std::string kModule = EMHOST_MODULE;
// Where the install rules put the module, below the prefix.
const std::string kModuleDir = EMHOST_INSTALLED_MODULE_DIR;

bool IsFile(const std::string& path, mode_t* mode = nullptr) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  if (mode != nullptr) *mode = info.st_mode & 07777;
  return true;
}

// The emhost component installed under <scratch>/stage/opt/korvex.
class EmHostInstalledTree : public ::testing::Test {
 protected:
  void SetUp() override {
    const CFinished install = RunProgram({EMHOST_CMAKE, "--install", EMHOST_BUILD_DIR,
                                          "--component", "emhost", "--prefix", "/opt/korvex"},
                                         "", {"DESTDIR=" + m_Scratch.Path() + "/stage"});
    ASSERT_EQ(install.m_Exit, 0) << install.m_Out << install.m_Err;
  }

  std::string Path(const std::string& relative) const { return m_Prefix + "/" + relative; }

  CTempDir m_Scratch{"emhost-installed"};
  std::string m_Prefix = m_Scratch.Path() + "/stage/opt/korvex";
};

TEST_F(EmHostInstalledTree, WithoutItsModuleNamesWhereItBelongs) {
  ASSERT_EQ(std::remove(Path(kModuleDir + "/libEM_KORVEX.so").c_str()), 0);
  const CFinished run = RunProgram({Path("bin/em-host"), "info"});
  EXPECT_EQ(run.m_Exit, 3);
  EXPECT_NE(run.m_Err.find("cannot load the module library: " + Path("bin") + "/../" + kModuleDir +
                           "/libEM_KORVEX.so"),
            std::string::npos)
      << run.m_Err;
}

TEST_F(EmHostInstalledTree, ModuleOptionOverridesTheInstalledModule) {
  const CFinished run = RunProgram({Path("bin/em-host"), "--module", kModule, "info"});
  EXPECT_EQ(run.m_Exit, 0) << run.m_Err;
  EXPECT_NE(run.m_Out.find("\nlibrary:     " + kModule + "\n"), std::string::npos) << run.m_Out;
}

TEST_F(EmHostInstalledTree, HoldsTheDocsAndExamples) {
  const std::string doc = "share/doc/em-korvex/";
  for (const char* file :
       {"README.md", "copyright", "docs/EM-HOST.md", "docs/FLEET.md",
        "examples/ansible/collect.yml", "examples/ansible/roles/korvex_collect/tasks/main.yml"}) {
    EXPECT_TRUE(IsFile(Path(doc + file))) << file;
  }
  mode_t mode = 0;
  ASSERT_TRUE(IsFile(Path(doc + "examples/Korvex"), &mode));
  EXPECT_EQ(mode, 0755u);  // the demo tool runs as it is, once copied to a tool root
}

}  // namespace
