// em-host's command line as an operator meets it, on the real binary: the
// version, usage errors of one line, the default BMC directory announced,
// and what a transfer says about the archive it sends and the file it
// replaces.
#include "tests/support/ChildProcess.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using korvex_test::CFinished;
using korvex_test::CTempDir;
using korvex_test::Lines;
using korvex_test::ReadFile;
using korvex_test::RunProgram;
using korvex_test::WriteFile;

const std::string kEmHost = EMHOST_BIN;
const std::string kTryHelp = "Try 'em-host --help' for more information.\n";

std::string RealPath(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The line of text that starts with prefix; "" when none.
std::string LineStarting(const std::string& text, const std::string& prefix) {
  for (const std::string& line : Lines(text)) {
    if (line.rfind(prefix, 0) == 0) return line;
  }
  return "";
}

class EmHostCliEdges : public ::testing::Test {
 protected:
  EmHostCliEdges() {
    ::mkdir(m_Root.c_str(), 0755);
    // Installed, so that the module starts; the transfers never run it.
    WriteFile(m_Root + "/Korvex",
              "#!/bin/bash\ncd \"$(dirname \"$0\")\" && printf PK > Korvex_Data.zip\n");
    ::chmod((m_Root + "/Korvex").c_str(), 0755);
  }

  // The archive, last written ageSec seconds ago (negative: in the future).
  void Archive(const std::string& content, long long ageSec) {
    WriteFile(m_Archive, content);
    const struct timespec times[2] = {{0, UTIME_OMIT},
                                      {static_cast<time_t>(std::time(nullptr) - ageSec), 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, m_Archive.c_str(), times, 0), 0);
  }

  CFinished EmHost(const std::vector<std::string>& more) {
    std::vector<std::string> args = {kEmHost, "--tool-root", m_Root, "--bmc-dir", m_Bmc};
    args.insert(args.end(), more.begin(), more.end());
    return RunProgram(args);
  }

  CTempDir m_Dir{"emhost-edges"};
  const std::string m_Root = m_Dir.Path() + "/tool";
  const std::string m_Archive = m_Root + "/Korvex_Data.zip";
  const std::string m_Bmc = m_Dir.Path() + "/bmc";
};

}  // namespace

TEST_F(EmHostCliEdges, VersionNamesTheProjectVersionAndTheModuleItWouldLoad) {
  const CFinished run = RunProgram({kEmHost, "--version"});
  EXPECT_EQ(run.m_Exit, 0);
  EXPECT_EQ(run.m_Err, "");
  const std::vector<std::string> lines = Lines(run.m_Out);
  ASSERT_EQ(lines.size(), 2u) << run.m_Out;
  EXPECT_EQ(lines[0], std::string("em-host ") + EMHOST_VERSION);
  ASSERT_EQ(lines[1].rfind("module:  ", 0), 0u) << lines[1];
  EXPECT_EQ(RealPath(lines[1].substr(9)), RealPath(EMHOST_MODULE));

  const CFinished other = RunProgram({kEmHost, "--module", m_Dir.Path() + "/none.so", "--version"});
  EXPECT_EQ(other.m_Exit, 0);
  EXPECT_EQ(other.m_Out, std::string("em-host ") + EMHOST_VERSION + "\nmodule:  " + m_Dir.Path() +
                             "/none.so (missing)\n");
}

TEST_F(EmHostCliEdges, AUsageErrorIsOneLineAndWhereToReadMore) {
  struct CCase {
    std::vector<std::string> m_Args;
    std::string m_Error;
  };
  const CCase cases[] = {
      {{"transfer", ""}, "transfer needs a NAME, not an empty one"},
      {{"collect", ""}, "collect needs a NAME, not an empty one"},
      {{"--timeout", "99999999999", "create"},
       "--timeout 99999999999 is out of range (0 to 4294967295)"},
      {{"transfer", "a.zip", "--timeout", "65536"},
       "--timeout 65536 is out of range for transfer (0 to 65535)"},
      {{"--tool-root", "/a", "--tool-root", "/b", "query"}, "--tool-root is given more than once"},
      {{}, "no command given"},
  };
  for (const CCase& c : cases) {
    std::vector<std::string> args{kEmHost};
    args.insert(args.end(), c.m_Args.begin(), c.m_Args.end());
    const CFinished run = RunProgram(args);
    EXPECT_EQ(run.m_Exit, 2) << c.m_Error;
    EXPECT_EQ(run.m_Out, "");
    EXPECT_EQ(run.m_Err, "em-host: " + c.m_Error + "\n" + kTryHelp);
  }
  EXPECT_FALSE(IsDirectory(m_Bmc));
}

TEST_F(EmHostCliEdges, TheDefaultBmcDirectoryIsAnnouncedWhenItIsCreated) {
  Archive("PK-archive", 5);
  const std::string work = m_Dir.Path() + "/work";
  ::mkdir(work.c_str(), 0755);
  const std::string command =
      "cd '" + work + "' && exec '" + kEmHost + "' --tool-root '" + m_Root + "' transfer a.zip";
  const CFinished first = RunProgram({"/bin/sh", "-c", command});
  EXPECT_EQ(first.m_Exit, 0) << first.m_Err;
  EXPECT_EQ(first.m_Err, "em-host: created the BMC directory " + work +
                             "/bmc (the default; --bmc-dir names another)\n");
  EXPECT_EQ(ReadFile(work + "/bmc/a.zip"), "PK-archive");
  // Once there, nothing to announce.
  const CFinished second = RunProgram({"/bin/sh", "-c", command});
  EXPECT_EQ(second.m_Exit, 0) << second.m_Err;
  EXPECT_EQ(second.m_Err, "");
  // A directory the operator named is made without a word.
  const std::string named = m_Dir.Path() + "/named/bmc";
  const CFinished given =
      RunProgram({kEmHost, "--tool-root", m_Root, "--bmc-dir", named, "transfer", "a.zip"});
  EXPECT_EQ(given.m_Exit, 0) << given.m_Err;
  EXPECT_EQ(given.m_Err, "");
  EXPECT_TRUE(IsDirectory(named));
}

TEST_F(EmHostCliEdges, TransferSaysTheArchivesSizeAndAgeBeforeSendingIt) {
  Archive("PK-archive", 3600 + 2 * 60 + 5);
  const CFinished old = EmHost({"transfer", "a.zip"});
  ASSERT_EQ(old.m_Exit, 0) << old.m_Err;
  const std::vector<std::string> lines = Lines(old.m_Out);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "transfer: the archive " + m_Archive + " has 10 bytes, written 1 h 2 min ago");
  EXPECT_EQ(lines[1], "transfer: transferring the archive to the BMC as a.zip");

  Archive(std::string(4096, 'x'), -(2 * 3600 + 30));
  const CFinished future = EmHost({"transfer", "b.zip"});
  ASSERT_EQ(future.m_Exit, 0) << future.m_Err;
  EXPECT_EQ(
      LineStarting(future.m_Out, "transfer: the archive "),
      "transfer: the archive " + m_Archive + " has 4096 bytes, dated 2 h 0 min in the future");

  // No archive: nothing to describe; the module's status 3 says it.
  ASSERT_EQ(::unlink(m_Archive.c_str()), 0);
  const CFinished none = EmHost({"transfer", "c.zip"});
  EXPECT_EQ(none.m_Exit, 1);
  EXPECT_EQ(LineStarting(none.m_Out, "transfer: the archive "), "");
}

TEST_F(EmHostCliEdges, TransferAndCollectSayWhenTheyReplaceAnEarlierFile) {
  Archive("PK-first", 1);
  const CFinished first = EmHost({"transfer", "a.zip"});
  ASSERT_EQ(first.m_Exit, 0) << first.m_Err;
  EXPECT_EQ(LineStarting(first.m_Out, "transfer: replaced"), "");

  Archive("PK-second", 1);
  const CFinished second = EmHost({"transfer", "a.zip"});
  ASSERT_EQ(second.m_Exit, 0) << second.m_Err;
  const std::vector<std::string> lines = Lines(second.m_Out);
  ASSERT_EQ(lines.size(), 7u) << second.m_Out;
  EXPECT_EQ(lines[2].rfind("transfer: transfer finished after ", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3], "transfer: replaced the earlier a.zip in the BMC directory");
  EXPECT_EQ(lines[4].rfind("destination: " + m_Bmc + "/a.zip (9 bytes)", 0), 0u) << lines[4];
  EXPECT_EQ(ReadFile(m_Bmc + "/a.zip"), "PK-second");

  // Another name replaces nothing; collect over an existing name says so.
  const CFinished other = EmHost({"transfer", "b.zip"});
  EXPECT_EQ(LineStarting(other.m_Out, "transfer: replaced"), "");
  const CFinished collect = EmHost({"collect", "a.zip"});
  ASSERT_EQ(collect.m_Exit, 0) << collect.m_Err;
  EXPECT_EQ(LineStarting(collect.m_Out, "collect: replaced"),
            "collect: replaced the earlier a.zip in the BMC directory");
  EXPECT_EQ(ReadFile(m_Bmc + "/a.zip"), "PK");
}

TEST_F(EmHostCliEdges, TheInstallTreeHoldsTheManualPageAndTheBashCompletion) {
  const std::string destdir = m_Dir.Path() + "/stage";
  const CFinished install = RunProgram(
      {EMHOST_CMAKE, "--install", EMHOST_BUILD_DIR, "--component", "emhost", "--prefix", "/usr"},
      "", {"DESTDIR=" + destdir});
  ASSERT_EQ(install.m_Exit, 0) << install.m_Out << install.m_Err;
  const std::string share = destdir + "/usr/share";
  const std::string page = ReadFile(share + "/man/man1/em-host.1");
  EXPECT_EQ(page, ReadFile(std::string(EMHOST_BUILD_DIR) + "/share/man/man1/em-host.1"));
  EXPECT_EQ(page.rfind(".TH EM\\-HOST 1 ", 0), 0u);
  EXPECT_NE(ReadFile(share + "/bash-completion/completions/em-host")
                .find("complete -F _em_host em-host\n"),
            std::string::npos);
  // man finds the page where the tree puts it.
  const CFinished man =
      RunProgram({"/usr/bin/man", "-w", "em-host"}, "", {"MANPATH=" + share + "/man", "MANOPT="});
  EXPECT_EQ(man.m_Exit, 0) << man.m_Err;
  EXPECT_EQ(man.m_Out, share + "/man/man1/em-host.1\n");
}
