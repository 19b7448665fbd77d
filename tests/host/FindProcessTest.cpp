// CProcess::FindProcess: a running process is found by its exact name only,
// and a process that has ended (a zombie) is not running. The processes are
// copies of /bin/sleep inside a private temp directory, started here
// directly so that they can be given an argument.
#include "frame/HostServices.h"
#include "tests/host/HostTestSupport.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

extern char** environ;

namespace {

using hosttest::CTempDir;
using hosttest::WaitUntil;

class FindProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_Dir.Valid()); }
  void TearDown() override {
    for (pid_t pid : m_Children) {
      ::kill(pid, SIGKILL);
      int status = 0;
      ::waitpid(pid, &status, 0);
    }
  }

  // Starts a copy of sleep named name with the given argument.
  pid_t StartCopy(const std::string& name, const char* seconds) {
    const std::string path = m_Dir / name;
    std::error_code error;
    std::filesystem::copy_file("/bin/sleep", path, std::filesystem::copy_options::overwrite_existing,
                               error);
    EXPECT_FALSE(error) << error.message();
    std::filesystem::permissions(path, std::filesystem::perms(0755), error);
    char* const arguments[] = {const_cast<char*>(path.c_str()), const_cast<char*>(seconds), nullptr};
    pid_t pid = 0;
    EXPECT_EQ(0, posix_spawn(&pid, path.c_str(), nullptr, nullptr, arguments, environ));
    if (pid > 0) m_Children.push_back(pid);
    return pid;
  }

  // The new program's name is in comm and its command line in cmdline
  // (the kernel sets them one after the other during exec).
  bool NameShows(pid_t pid, const std::string& name) const {
    const std::string base = "/proc/" + std::to_string(pid);
    std::string comm = hosttest::ReadFile(base + "/comm");
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    const std::string commandLine = hosttest::ReadFile(base + "/cmdline");
    return comm == name.substr(0, 15) && commandLine.rfind(m_Dir / name, 0) == 0;
  }

  // Another process of that name that is not ours (a test of another
  // suite run outside ctest's resource lock) makes "found" ambiguous.
  bool ForeignRuns(const std::string& name) const {
    for (const auto& item : std::filesystem::directory_iterator("/proc")) {
      const std::string file = item.path().filename().string();
      if (file.empty() || file.find_first_not_of("0123456789") != std::string::npos) continue;
      const pid_t pid = static_cast<pid_t>(std::stol(file));
      if (std::find(m_Children.begin(), m_Children.end(), pid) != m_Children.end()) continue;
      std::string comm = hosttest::ReadFile("/proc/" + file + "/comm");
      if (!comm.empty() && comm.back() == '\n') comm.pop_back();
      if (comm == name && hosttest::ProcessRuns(pid)) return true;
    }
    return false;
  }

  CTempDir m_Dir;
  std::vector<pid_t> m_Children;
};

#define SKIP_IF_FOREIGN(name) \
  if (ForeignRuns(name)) GTEST_SKIP() << "a process named " << (name) << " that is not ours runs"

TEST_F(FindProcessTest, RunningKorvexIsFoundWithItsId) {
  const pid_t pid = StartCopy("Korvex", "30");
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitUntil([&] { return NameShows(pid, "Korvex"); }));
  SKIP_IF_FOREIGN("Korvex");
  unsigned int found = 0;
  EXPECT_TRUE(CProcess::FindProcess(found, "Korvex"));
  EXPECT_EQ(static_cast<unsigned int>(pid), found);
}

TEST_F(FindProcessTest, Korvex2IsNotKorvexAndKorvexIsNotKorve) {
  const pid_t pid = StartCopy("Korvex2", "30");
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitUntil([&] { return NameShows(pid, "Korvex2"); }));
  SKIP_IF_FOREIGN("Korvex");
  SKIP_IF_FOREIGN("Korve");
  unsigned int found = 0xC0FFEEu;
  EXPECT_FALSE(CProcess::FindProcess(found, "Korvex"));
  EXPECT_EQ(0xC0FFEEu, found);  // untouched when nothing is found
  EXPECT_FALSE(CProcess::FindProcess(found, "Korvex22"));
  EXPECT_FALSE(CProcess::FindProcess(found, "Korve"));
  EXPECT_TRUE(CProcess::FindProcess(found, "Korvex2"));
  EXPECT_EQ(static_cast<unsigned int>(pid), found);
}

TEST_F(FindProcessTest, EndedProcessIsNotRunning) {
  const pid_t pid = StartCopy("Korvex", "0");
  ASSERT_GT(pid, 0);
  // Not reaped yet: a zombie that still carries the name.
  ASSERT_TRUE(WaitUntil([&] { return hosttest::ProcessState(pid) == 'Z'; }));
  ASSERT_EQ("Korvex\n", hosttest::ReadFile("/proc/" + std::to_string(pid) + "/comm"));
  SKIP_IF_FOREIGN("Korvex");
  unsigned int found = 0;
  EXPECT_FALSE(CProcess::FindProcess(found, "Korvex"));
}

TEST_F(FindProcessTest, NameLongerThanTheKernelKeepsIsMatchedInFull) {
  const pid_t pid = StartCopy("KorvexCollector1", "30");
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(WaitUntil([&] { return NameShows(pid, "KorvexCollector1"); }));
  unsigned int found = 0;
  EXPECT_TRUE(CProcess::FindProcess(found, "KorvexCollector1"));
  EXPECT_EQ(static_cast<unsigned int>(pid), found);
  EXPECT_FALSE(CProcess::FindProcess(found, "KorvexCollector2"));  // same first 15 characters
  EXPECT_FALSE(CProcess::FindProcess(found, "KorvexCollector"));
}

// The search keeps the name files of the processes it has seen open and
// reads them again: a process that takes the name by exec after a search
// has seen it under its old name is found under the same id, and once it
// has been reaped it is no longer found.
TEST_F(FindProcessTest, ProcessSeenBeforeItsExecIsFoundAfterItAndNotAfterItsEnd) {
  const std::string later = "KvxExecLater";
  const std::string path = m_Dir / later;
  std::error_code error;
  std::filesystem::copy_file("/bin/sleep", path, std::filesystem::copy_options::overwrite_existing,
                             error);
  ASSERT_FALSE(error) << error.message();
  std::filesystem::permissions(path, std::filesystem::perms(0755), error);
  SKIP_IF_FOREIGN(later);

  // A shell that waits for one line on its input, then becomes the program.
  int go[2];
  ASSERT_EQ(0, ::pipe(go));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, go[0], STDIN_FILENO);
  posix_spawn_file_actions_addclose(&actions, go[1]);
  const std::string script = "read line; exec '" + path + "' 30";
  char* const arguments[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"),
                             const_cast<char*>(script.c_str()), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(0, posix_spawn(&pid, "/bin/sh", &actions, nullptr, arguments, environ));
  posix_spawn_file_actions_destroy(&actions);
  ::close(go[0]);
  m_Children.push_back(pid);

  unsigned int found = 0xC0FFEEu;
  ASSERT_TRUE(WaitUntil([&] { return hosttest::ProcessState(pid) == 'S'; }));
  EXPECT_FALSE(CProcess::FindProcess(found, later.c_str()));  // still the shell
  EXPECT_EQ(0xC0FFEEu, found);

  ASSERT_EQ(1, ::write(go[1], "\n", 1));
  ::close(go[1]);
  ASSERT_TRUE(WaitUntil([&] { return NameShows(pid, later); }));
  EXPECT_TRUE(CProcess::FindProcess(found, later.c_str()));
  EXPECT_EQ(static_cast<unsigned int>(pid), found);

  ::kill(pid, SIGKILL);
  int status = 0;
  ASSERT_EQ(pid, ::waitpid(pid, &status, 0));
  m_Children.clear();
  found = 0xC0FFEEu;
  EXPECT_FALSE(CProcess::FindProcess(found, later.c_str()));
  EXPECT_EQ(0xC0FFEEu, found);
}

TEST_F(FindProcessTest, EmptyOrNullNameFindsNothing) {
  unsigned int found = 0xC0FFEEu;
  EXPECT_FALSE(CProcess::FindProcess(found, ""));
  EXPECT_FALSE(CProcess::FindProcess(found, nullptr));
  EXPECT_EQ(0xC0FFEEu, found);
}

}  // namespace
