// em-host owns its collector: after every way of ending a run no process of
// the tool's tree is left and the tool's clean-up ran; the tool's input and
// output are its own; the operator is told what happened; serve survives a
// closed input, a stalled reader and invalid UTF-8. The fake tools behave
// like real collectors: a child under timeout, a setsid child, a background
// grandchild, a TERM trap that removes a scratch directory, JSON lines on
// their output and a read of their input.
#include "frame/HostServices.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/CollectorTool.h"
#include "tests/support/Processes.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// Scratch directories, files, child processes and process state.
using namespace korvex_test;
const std::string kEmHost = EMHOST_BIN;
const std::string kCreate = R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"TO":30}]}})";
const std::string kQuery = R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":0,"TO":30}]}})";

// Running processes whose command line holds marker.
int CountWith(const std::string& marker) {
  int count = 0;
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) return 0;
  while (const dirent* entry = ::readdir(proc)) {
    const std::string name = entry->d_name;
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string commandLine = ReadFile("/proc/" + name + "/cmdline");
    for (char& c : commandLine) {
      if (c == '\0') c = ' ';
    }
    if (commandLine.find(marker) != std::string::npos && ProcessRuns(std::stoi(name))) ++count;
  }
  ::closedir(proc);
  return count;
}

// Polls condition (bounded); pumps the child's output meanwhile so that it
// never blocks on a full pipe.
bool WaitFor(const std::function<bool()>& condition, int limitMs, CChildProcess* pump = nullptr) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    if (pump != nullptr) {
      pump->Pump(20);
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  return true;
}

std::string RequestLine(const std::string& id, const std::string& message) {
  return "{\"id\":" + id + ",\"request\":" + message + "}\n";
}

class EmHostTree : public ::testing::Test {
 protected:
  void SetUp() override {
    m_Dir = m_Temp.Path();
    ASSERT_EQ(0, ::chmod(m_Dir.c_str(), 0755));
    m_Root = m_Dir + "/tool";
    m_Work = m_Dir + "/work";
    ASSERT_EQ(0, ::mkdir(m_Root.c_str(), 0755));
    ASSERT_EQ(0, ::mkdir(m_Work.c_str(), 0777));
    ASSERT_EQ(0, ::chmod(m_Work.c_str(), 0777));
    m_Scratch = m_Work + "/scratch";
    m_Ready = m_Work + "/ready";
    static int counter = 0;
    m_Marker = std::to_string(8000000 + (::getpid() % 1000) * 100 + counter++);
  }

  // The collector: every process of its tree carries the marker.
  void Collector() {
    Tool(korvex_test::CollectorBody(m_Scratch, m_Ready, m_Marker, /*talks=*/true));
  }
  void Tool(const std::string& body, mode_t mode = 0755) {
    WriteFile(m_Root + "/Korvex", "#!/bin/sh\n" + body, mode);
  }
  std::vector<std::string> Args(const std::vector<std::string>& more) const {
    std::vector<std::string> args = {kEmHost, "--tool-root", m_Root, "--bmc-dir", m_Dir + "/bmc"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }
  // create as nobody, with the BMC directory and the tool's log in the
  // world-writable work directory that user can write.
  std::vector<std::string> UnprivilegedCreateArgs() const {
    return {"/usr/bin/setpriv",   "--reuid=65534", "--regid=65534", "--clear-groups", kEmHost,
            "--tool-root",        m_Root,          "--bmc-dir",     m_Work + "/bmc",  "--tool-log",
            m_Work + "/tool.log", "create"};
  }
  bool TreeUp(CChildProcess* pump) {
    return WaitFor([&] { return Exists(m_Ready) && CountWith("sleep " + m_Marker) >= 4; }, 20000,
                   pump);
  }
  bool TreeGone() {
    return WaitFor([&] { return CountWith(m_Marker) == 0; }, 20000);
  }
  std::string Log() const { return ReadFile(m_Root + "/Korvex.output.log"); }

  // create, ended by sending signo to em-host once the tree is up.
  void CreateEndedBy(int signo) {
    Collector();
    CChildProcess host(Args({"create"}));
    ASSERT_TRUE(TreeUp(&host));
    ASSERT_TRUE(Exists(m_Scratch));
    ASSERT_EQ(0, ::kill(host.Pid(), signo));
    const CFinished done = host.Finish(60);
    EXPECT_EQ(128 + signo, done.m_Exit) << done.m_Err;
    EXPECT_TRUE(TreeGone()) << CountWith(m_Marker) << " processes left";
    EXPECT_FALSE(Exists(m_Scratch));
    // The tool's JSON line went to its log, not to em-host's output.
    EXPECT_EQ(std::string::npos, done.m_Out.find("from the tool")) << done.m_Out;
    EXPECT_NE(std::string::npos, Log().find("from the tool")) << Log();
    // It read /dev/null: nothing.
    EXPECT_EQ(std::string::npos, Log().find("tool read:")) << Log();
  }

  korvex_test::CTempDir m_Temp{"emhost-tree"};
  std::string m_Dir;
  std::string m_Root;
  std::string m_Work;
  std::string m_Scratch;
  std::string m_Ready;
  std::string m_Marker;
};

TEST_F(EmHostTree, SigintEndsTheWholeTree) { CreateEndedBy(SIGINT); }
TEST_F(EmHostTree, SigtermEndsTheWholeTree) { CreateEndedBy(SIGTERM); }
TEST_F(EmHostTree, SighupEndsTheWholeTree) { CreateEndedBy(SIGHUP); }
TEST_F(EmHostTree, SigquitEndsTheWholeTree) { CreateEndedBy(SIGQUIT); }
TEST_F(EmHostTree, Sigusr1EndsTheWholeTree) { CreateEndedBy(SIGUSR1); }
TEST_F(EmHostTree, SigalrmEndsTheWholeTree) { CreateEndedBy(SIGALRM); }

TEST_F(EmHostTree, TimeoutEndsTheWholeTree) {
  Collector();
  const CFinished done = RunProgram(Args({"create", "--timeout", "2"}), "", {}, 60);
  EXPECT_EQ(4, done.m_Exit) << done.m_Err;
  EXPECT_TRUE(TreeGone());
  EXPECT_FALSE(Exists(m_Scratch));
}

TEST_F(EmHostTree, SigkillOfEmHostLeavesNoProcess) {
  Collector();
  CChildProcess host(Args({"create"}));
  ASSERT_TRUE(TreeUp(&host));
  ASSERT_EQ(0, ::kill(host.Pid(), SIGKILL));
  host.Finish(60);
  EXPECT_TRUE(TreeGone()) << CountWith(m_Marker) << " processes left";
}

TEST_F(EmHostTree, StopInServeEndsTheWholeTree) {
  Collector();
  CChildProcess host(Args({"serve"}));
  host.Write(RequestLine("1", kCreate));
  ASSERT_TRUE(TreeUp(&host));
  // The tool printed a JSON line and read its input: neither touches the
  // session, the next request is answered.
  host.Write(RequestLine("2", kQuery));
  ASSERT_TRUE(
      WaitFor([&] { return host.Out().find("{\"id\":2,\"event\":\"ack\"") != std::string::npos; },
              20000, &host));
  host.Write("{\"id\":3,\"control\":\"stop\"}\n");
  ASSERT_TRUE(WaitFor([&] { return host.Out().find("\"control\":\"stop\"") != std::string::npos; },
                      20000, &host));
  EXPECT_TRUE(TreeGone());
  EXPECT_FALSE(Exists(m_Scratch));
  const CFinished done = host.Finish(60);
  EXPECT_EQ(0, done.m_Exit);
  EXPECT_EQ(std::string::npos, done.m_Out.find("from the tool")) << done.m_Out;
  EXPECT_EQ(std::string::npos, Log().find("tool read:")) << Log();
}

TEST_F(EmHostTree, EndOfServeSessionEndsTheWholeTree) {
  Collector();
  CChildProcess host(Args({"serve"}));
  host.Write(RequestLine("1", kCreate));
  ASSERT_TRUE(TreeUp(&host));
  host.CloseInput();
  const CFinished done = host.Finish(60);
  EXPECT_EQ(0, done.m_Exit) << done.m_Err;
  EXPECT_TRUE(TreeGone());
  EXPECT_FALSE(Exists(m_Scratch));
}

TEST_F(EmHostTree, WithoutPrivilegeTheSubreaperEndsTheWholeTree) {
  // em-host as an unprivileged user cannot make a PID namespace: the
  // supervisor finds the tree as its subreaper instead.
  Collector();
  CChildProcess host(UnprivilegedCreateArgs());
  ASSERT_TRUE(TreeUp(&host));
  ASSERT_EQ(0, ::kill(host.Pid(), SIGTERM));
  const CFinished done = host.Finish(60);
  EXPECT_EQ(128 + SIGTERM, done.m_Exit) << done.m_Err;
  EXPECT_TRUE(TreeGone()) << CountWith(m_Marker) << " processes left";
  EXPECT_FALSE(Exists(m_Scratch));
  EXPECT_NE(std::string::npos, ReadFile(m_Work + "/tool.log").find("from the tool"));
}

TEST_F(EmHostTree, WithoutPrivilegeSigkillOfEmHostLeavesNoProcess) {
  Collector();
  CChildProcess host(UnprivilegedCreateArgs());
  ASSERT_TRUE(TreeUp(&host));
  ASSERT_EQ(0, ::kill(host.Pid(), SIGKILL));
  host.Finish(60);
  EXPECT_TRUE(TreeGone()) << CountWith(m_Marker) << " processes left";
}

// ----- telling the operator ---------------------------------------------------

TEST_F(EmHostTree, AFailingToolIsExplainedWithItsLog) {
  Tool("echo 'collecting disks'\necho 'xz: out of space' >&2\nexit 3\n");
  const CFinished done = RunProgram(Args({"create"}));
  EXPECT_EQ(1, done.m_Exit);
  const std::string log = m_Root + "/Korvex.output.log";
  EXPECT_NE(std::string::npos,
            done.m_Err.find("em-host: create: the archive was not created: Korvex exited with exit "
                            "code 3 (status 6)\n"))
      << done.m_Err;
  EXPECT_NE(std::string::npos, done.m_Err.find("em-host: create: Korvex's output is in " + log +
                                               "; its last lines:\n"))
      << done.m_Err;
  EXPECT_NE(std::string::npos, done.m_Err.find("em-host: create:   | xz: out of space\n"))
      << done.m_Err;
  EXPECT_EQ(std::string::npos, done.m_Out.find("status 22")) << done.m_Out;
}

TEST_F(EmHostTree, AToolKilledByASignalIsExplained) {
  Tool("kill -KILL $$\n");
  const CFinished done = RunProgram(Args({"create"}));
  EXPECT_EQ(1, done.m_Exit);
  EXPECT_NE(std::string::npos, done.m_Err.find("Korvex was killed by SIGKILL (status 6)"))
      << done.m_Err;
}

TEST_F(EmHostTree, AToolWithoutTheExecuteBitIsExplained) {
  Tool("exit 0\n", 0644);
  const CFinished done = RunProgram(Args({"create"}));
  EXPECT_EQ(1, done.m_Exit);
  EXPECT_NE(std::string::npos,
            done.m_Err.find("Korvex could not run: " + m_Root + "/Korvex is not executable"))
      << done.m_Err;
}

TEST_F(EmHostTree, AToolOthersCanChangeIsRefusedAsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "the rule applies when em-host runs as root";
  Tool("touch '" + m_Work + "/ran'\nexit 0\n", 0775);
  ASSERT_EQ(0, ::chmod((m_Root + "/Korvex").c_str(), 0775));
  const CFinished done = RunProgram(Args({"create"}));
  EXPECT_EQ(1, done.m_Exit);
  EXPECT_NE(std::string::npos, done.m_Err.find("is writable by group or others (mode 0775)"))
      << done.m_Err;
  EXPECT_FALSE(Exists(m_Work + "/ran"));
}

TEST_F(EmHostTree, ARunningCollectionMakesCreateBusyAndKeepsItsArchive) {
  // A Korvex of this user runs (a copy of sleep, found by its name).
  const std::string other = m_Work + "/Korvex";
  ASSERT_EQ(0, std::system(("cp /bin/sleep '" + other + "'").c_str()));
  CChildProcess running({other, m_Marker});
  ASSERT_TRUE(WaitFor([&] { return CountWith(m_Marker) == 1; }, 10000));
  WriteFile(m_Root + "/Korvex_Data.zip", "PK-of-the-running-one", 0644);
  Tool("exit 0\n");
  const CFinished done = RunProgram(Args({"create"}));
  EXPECT_EQ(75, done.m_Exit) << done.m_Err;
  EXPECT_NE(std::string::npos,
            done.m_Err.find("em-host: create: another Korvex collection is already running (pid " +
                            std::to_string(running.Pid()) + ", user root, " + other + " " +
                            m_Marker + "); status 5, try again later\n"))
      << done.m_Err;
  // 0x3401 was not sent: the running collection's archive is still there.
  EXPECT_EQ("PK-of-the-running-one", ReadFile(m_Root + "/Korvex_Data.zip"));
  ::kill(running.Pid(), SIGKILL);
}

TEST_F(EmHostTree, ASecondEmHostOnTheSameRootIsBusy) {
  const int fd = ::open(m_Root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB));
  Tool("touch '" + m_Work + "/ran'\nexit 0\n");
  const CFinished done = RunProgram(Args({"collect", "x.zip"}));
  EXPECT_EQ(75, done.m_Exit);
  EXPECT_NE(std::string::npos, done.m_Err.find("another em-host holds the lock of " + m_Root))
      << done.m_Err;
  EXPECT_FALSE(Exists(m_Work + "/ran"));
  ::close(fd);
}

TEST_F(EmHostTree, APipeGetsAHeartbeatWhileTheToolRuns) {
  Tool("touch '" + m_Ready + "'\nn=0\nwhile [ ! -e '" + m_Work +
       "/go' ] && [ $n -lt 600 ]; do sleep 0.1; n=$((n+1)); done\nexit 3\n");
  CChildProcess host(Args({"--heartbeat", "1", "create"}));
  const bool beat =
      WaitFor([&] { return host.Out().find("create: Korvex is running, ") != std::string::npos; },
              30000, &host);
  WriteFile(m_Work + "/go", "", 0644);
  const CFinished done = host.Finish(60);
  EXPECT_TRUE(beat) << done.m_Out;
  EXPECT_NE(std::string::npos, done.m_Out.find(" s\n")) << done.m_Out;
}

// ----- serve's own robustness ---------------------------------------------------

TEST_F(EmHostTree, ServeWithItsInputClosedEndsAtOnce) {
  Tool("exit 0\n");
  std::vector<std::string> args = {"/bin/sh", "-c", "exec 0<&- \"$@\"", "sh"};
  for (const std::string& arg : Args({"serve"})) args.push_back(arg);
  const CFinished done = RunProgram(args, "", {}, 30);
  EXPECT_EQ(0, done.m_Exit) << done.m_Err;
  EXPECT_EQ("", done.m_Out);
}

TEST_F(EmHostTree, ServeActsOnASignalWhileItsReaderStalls) {
  Tool("exit 0\n");
  CChildProcess host(Args({"serve"}));
  // About 120 KiB of acks, more than a pipe holds: em-host blocks writing.
  std::string input;
  for (int i = 0; i < 600; ++i) input += RequestLine(std::to_string(i), kQuery);
  host.Write(input);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ASSERT_EQ(0, ::kill(host.Pid(), SIGTERM));
  // Ends without anyone reading its output.
  EXPECT_TRUE(WaitFor([&] { return !ProcessRuns(host.Pid()); }, 20000));
  const CFinished done = host.Finish(60);
  EXPECT_EQ(128 + SIGTERM, done.m_Exit);
}

TEST_F(EmHostTree, ServeRefusesALineOfInvalidUtf8) {
  Tool("exit 0\n");
  const std::string bad = "{\"id\":\"\xff\xfe\",\"request\":" + kQuery + "}\n";
  const std::string overlong = "{\"id\":\"\xc0\xaf\",\"request\":" + kQuery + "}\n";
  const CFinished done =
      RunProgram(Args({"serve"}), bad + overlong + RequestLine("\"ok\"", kQuery), {}, 30);
  EXPECT_EQ(0, done.m_Exit);
  const std::vector<std::string> lines = Lines(done.m_Out);
  ASSERT_EQ(3u, lines.size()) << done.m_Out;
  EXPECT_EQ("{\"event\":\"error\",\"line\":1,\"error\":\"the line is not valid UTF-8\"}", lines[0]);
  EXPECT_EQ("{\"event\":\"error\",\"line\":2,\"error\":\"the line is not valid UTF-8\"}", lines[1]);
  EXPECT_EQ(0u, lines[2].find("{\"id\":\"ok\",\"event\":\"ack\"")) << lines[2];
}

}  // namespace
