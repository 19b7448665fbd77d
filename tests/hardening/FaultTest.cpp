// Faults from outside, end to end: the real em-host with the real module
// library and fake Korvex tools that misbehave. Each case must end in the
// documented status or a clear error - never a crash, a hang beyond the
// waits the module and em-host state, or a process left running.
//
// The waits that bound these cases: Stop gives the worker 100 ms plus 2 s,
// kills it (a cancelled thread gets up to 5 s to unwind), then gives a
// terminated tool 2 s; em-host's --timeout S adds S. The bounds below are
// far above that sum so that a loaded machine with sanitizers does not fail
// them; a hang still shows, as a bound of tens of seconds instead of never.
#include "tests/hardening/HardeningSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <signal.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace hardening {
namespace {

using namespace std::chrono_literals;

constexpr auto kStopBound = 40s;   // Stop's own waits are about 9 s at worst
constexpr auto kReplyBound = 60s;  // a reply that is due now

const std::string kCreateRequest =
    R"({"id":1,"request":{"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0}]}}})";
const std::string kCreateAck =
    R"({"id":1,"event":"ack","result":1,"message":{"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"ST":22}]}}})";

std::string CreateReply(unsigned int status) {
  return R"({"id":1,"event":"reply","message":{"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"ST":)" +
         std::to_string(status) + "}]}}}";
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The module answers 5 while any "Korvex" runs anywhere on the machine.
// Suites of this project take a ctest lock for that; a foreign process (a
// second test run on the same machine) is not held back by it. A case that
// meets one says so and is skipped rather than failed.
bool MetForeignKorvex(const std::string& output) {
  return output.find(R"("ST":5}],"C":true)") != std::string::npos ||
         output.find("status 5: another Korvex collection is already running") != std::string::npos;
}

#define SKIP_IF_FOREIGN_KORVEX(text)                                              \
  if (MetForeignKorvex(text)) {                                                   \
    GTEST_SKIP() << "a Korvex process of somebody else ran meanwhile (status 5)"; \
  }

class Fault : public ::testing::Test {
 protected:
  void SetUp() override {
    // The module answers 5 while any "Korvex" runs on the machine; tests of
    // other suites take the same ctest lock, a run outside ctest may not.
    if (!WaitUntilNoneNamed("Korvex", 30s)) {
      GTEST_SKIP() << "a Korvex process of somebody else keeps running";
    }
    m_Root = m_Area.Sub("root");
    m_Bmc = m_Area.Sub("bmc");
    m_Trace = m_Area / "trace.txt";
    m_Fifo = m_Area / "block";
    ASSERT_EQ(0, ::mkfifo(m_Fifo.c_str(), 0600));
  }

  void TearDown() override {
    // Nothing of a case may outlive it; the kill is only the clean-up after
    // a failure, so that one failing case does not poison the next.
    EXPECT_TRUE(WaitUntilNoneNamed("Korvex", 10s, m_Area.Path()))
        << "a Korvex process was left running";
    KillAllNamed("Korvex", m_Area.Path());
  }

  std::vector<std::string> ServeArguments(const std::string& root) const {
    return {"--tool-root",   root, "--bmc-dir", m_Bmc, "--trace", m_Trace,
            "--trace-level", "3",  "serve"};
  }

  // A tool that blocks on the fifo without a child of its own (read is a
  // builtin; the open of a fifo without a writer waits).
  std::string BlockOnFifo() const { return "read -r line < " + ShellQuote(m_Fifo) + "\n"; }

  CTempDir m_Area;
  std::string m_Root;
  std::string m_Bmc;
  std::string m_Trace;
  std::string m_Fifo;
};

TEST_F(Fault, ToolKilledFromOutsideWithSigkillAnswersStatusSix) {
  const std::string pidFile = m_Area / "tool.pid";
  WriteScript(m_Root + "/Korvex", "read -r s < /proc/self/stat; echo ${s%% *} > " +
                                      ShellQuote(pidFile + ".tmp") + "\nmv " +
                                      ShellQuote(pidFile + ".tmp") + " " + ShellQuote(pidFile) +
                                      "\n" + BlockOnFifo() + "exit 0");
  CEmHost host(ServeArguments(m_Root));
  host.WriteLine(kCreateRequest);
  ASSERT_TRUE(host.WaitForLine([](const std::string& l) { return l == kCreateAck; }, kReplyBound))
      << host.Out() << host.Err();
  ASSERT_TRUE(WaitUntil(
      [&] {
        host.WaitForLine([](const std::string&) { return false; }, std::chrono::milliseconds(1));
        return Exists(pidFile) || MetForeignKorvex(host.Out());
      },
      kReplyBound));
  SKIP_IF_FOREIGN_KORVEX(host.Out());
  const pid_t tool = static_cast<pid_t>(std::stol(ReadFile(pidFile)));
  ASSERT_EQ(0, ::kill(tool, SIGKILL));

  // A signal's death is reported as 128 + 9 and judged as a failed run.
  EXPECT_TRUE(
      host.WaitForLine([](const std::string& l) { return l == CreateReply(6); }, kReplyBound))
      << host.Out();
  host.WriteLine(R"({"id":2,"control":"quit"})");
  EXPECT_EQ(0, host.WaitForExit(kStopBound)) << host.Err();
  EXPECT_TRUE(Contains(ReadFile(m_Trace),
                       "\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process was terminated "
                       "unsuccessfully; process exit code = 0x89!"))
      << ReadFile(m_Trace);
}

TEST_F(Fault, ToolThatLeavesAGrandchildRunningLeavesNothingBehind) {
  // The grandchild has a name of its own, so that it can be told apart.
  const std::string orphan = m_Area / "kvx-orphan";
  const std::string orphanPid = m_Area / "orphan.pid";
  WriteScript(orphan, BlockOnFifo());
  WriteScript(m_Root + "/Korvex", ShellQuote(orphan) + " &\necho $! > " + ShellQuote(orphanPid) +
                                      "\necho archive > \"$(dirname \"$0\")/Korvex_Data.zip\"\n"
                                      "exit 0");
  CEmHost host(ServeArguments(m_Root));
  host.WriteLine(kCreateRequest);
  host.WaitForLine(
      [](const std::string& l) { return l.find("\"event\":\"reply\"") != std::string::npos; },
      kReplyBound);
  SKIP_IF_FOREIGN_KORVEX(host.Out());
  EXPECT_TRUE(host.WaitForLine([](const std::string& l) { return l == CreateReply(0); },
                               std::chrono::milliseconds(1)))
      << host.Out() << host.Err();
  ASSERT_TRUE(Exists(orphanPid));
  // The tool has ended and was answered for; what it left in its process
  // group is ended with it.
  EXPECT_TRUE(WaitUntilNoneNamed("kvx-orphan", 10s, m_Area.Path()))
      << "the tool's grandchild was left running";
  KillAllNamed("kvx-orphan", m_Area.Path());
  host.WriteLine(R"({"id":2,"control":"quit"})");
  EXPECT_EQ(0, host.WaitForExit(kStopBound)) << host.Err();
}

TEST_F(Fault, ToolThatClosesItsOutputAndHangsIsEndedByTheTimeout) {
  WriteScript(m_Root + "/Korvex", "exec 1>&- 2>&-\n" + BlockOnFifo() + "exit 0");
  const CResult result = RunEmHost(
      {"--tool-root", m_Root, "--bmc-dir", m_Bmc, "create", "--timeout", "2"}, 2s + kStopBound);
  SKIP_IF_FOREIGN_KORVEX(result.m_Err);
  EXPECT_EQ(4, result.m_Exit) << result.m_Out << result.m_Err;
  EXPECT_TRUE(Contains(result.m_Err, "em-host: create:")) << result.m_Err;
  EXPECT_LT(result.m_Seconds, std::chrono::duration<double>(2s + kStopBound).count());
}

TEST_F(Fault, ToolThatClosesItsOutputAndHangsIsEndedWhenTheSessionEnds) {
  WriteScript(m_Root + "/Korvex", "exec 1>&- 2>&-\n" + BlockOnFifo() + "exit 0");
  CEmHost host(ServeArguments(m_Root));
  host.WriteLine(kCreateRequest);
  ASSERT_TRUE(host.WaitForLine([](const std::string& l) { return l == kCreateAck; }, kReplyBound))
      << host.Out() << host.Err();
  ASSERT_TRUE(
      WaitUntil([&] { return !ProcessesNamed("Korvex", m_Area.Path()).empty(); }, kReplyBound));
  host.WriteLine(R"({"id":2,"control":"wait","timeout_ms":1500})");
  host.WaitForLineContaining(R"("control":"wait")", kReplyBound);
  SKIP_IF_FOREIGN_KORVEX(host.Out());
  EXPECT_TRUE(host.WaitForLine(
      [](const std::string& l) {
        return l == R"({"id":2,"event":"control","control":"wait","result":0})";
      },
      kReplyBound))
      << host.Out();
  const auto start = std::chrono::steady_clock::now();
  host.CloseInput();
  EXPECT_EQ(0, host.WaitForExit(kStopBound)) << host.Err();
  EXPECT_LT(std::chrono::steady_clock::now() - start, kStopBound);
  // The worker was ended inside the tool's run: no reply for the request.
  for (const std::string& line : host.OutputLines()) {
    EXPECT_FALSE(Contains(line, "\"event\":\"reply\"")) << line;
  }
  const std::string trace = ReadFile(m_Trace);
  EXPECT_TRUE(Contains(trace,
                       "\nEM_KORVEX (Stop)    : -> Korvex archive creation in progress - "
                       "terminate process (#"))
      << trace;
  EXPECT_TRUE(Contains(trace, "\nEM_KORVEX (Stop)    : Korvex process exit")) << trace;
}

TEST_F(Fault, ArchiveRootThatIsNotWritableAnswersStatusSix) {
  // Root ignores permission bits, so for root the tool's directory is a
  // read-only mount; for anybody else a directory without write permission.
  const std::string root = m_Area.Sub("readonly");
  const bool asRoot = ::geteuid() == 0;
  if (asRoot) {
    if (::mount("tmpfs", root.c_str(), "tmpfs", 0, "size=1m,mode=0755") != 0) {
      GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    m_Area.AddMount(root);
  }
  WriteScript(root + "/Korvex",
              "echo data > \"$(dirname \"$0\")/Korvex_Data.zip\" || exit 7\nexit 0");
  WriteFile(root + "/Korvex_Data.zip", "old archive", 0444);
  if (asRoot) {
    ASSERT_EQ(0, ::mount("tmpfs", root.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=1m"));
  } else {
    ASSERT_EQ(0, ::chmod(root.c_str(), 0555));
  }

  CEmHost host(ServeArguments(root));
  host.WriteLine(kCreateRequest);
  host.WaitForLine(
      [](const std::string& l) { return l.find("\"event\":\"reply\"") != std::string::npos; },
      kReplyBound);
  SKIP_IF_FOREIGN_KORVEX(host.Out());
  EXPECT_TRUE(host.WaitForLine([](const std::string& l) { return l == CreateReply(6); },
                               std::chrono::milliseconds(1)))
      << host.Out() << host.Err();
  host.WriteLine(R"({"id":2,"control":"quit"})");
  EXPECT_EQ(0, host.WaitForExit(kStopBound)) << host.Err();
  const std::string trace = ReadFile(m_Trace);
  // EROFS (30) on the read-only mount, EACCES (13) without write permission.
  EXPECT_TRUE(Contains(trace, std::string("\nEM_KORVEX           : ## ERROR! Old Korvex archive "
                                          "file cannot be removed (") +
                                  (asRoot ? "0x0000001E" : "0x0000000D") + ")!"))
      << trace;
  EXPECT_TRUE(Contains(trace,
                       "\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process was terminated "
                       "unsuccessfully; process exit code = 0x07!"))
      << trace;
  EXPECT_EQ("old archive", ReadFile(root + "/Korvex_Data.zip"));
}

TEST_F(Fault, RootPathWithSpacesAndShellMetacharactersIsUsedLiterally) {
  // Would a shell ever see the path, one of these would create KVX_PWNED.
  const std::string name =
      "a b;c $(touch KVX_PWNED) `touch KVX_PWNED` && | < > ' \" * ? ! # ~ % \\";
  const std::string root = m_Area.Sub(name);
  ASSERT_TRUE(Exists(root + "/"));
  WriteScript(root + "/Korvex", "echo archive > \"$(dirname \"$0\")/Korvex_Data.zip\"\nexit 0");
  const CResult result = RunEmHost({"--tool-root", root, "--bmc-dir", m_Bmc, "--trace", m_Trace,
                                    "--trace-level", "3", "collect", "k.zip"},
                                   kReplyBound + kStopBound, m_Area.Path());
  SKIP_IF_FOREIGN_KORVEX(result.m_Err);
  EXPECT_EQ(0, result.m_Exit) << result.m_Out << result.m_Err;
  EXPECT_EQ("archive\n", ReadFile(m_Bmc + "/k.zip"));
  const std::string trace = ReadFile(m_Trace);
  EXPECT_TRUE(Contains(trace, "\nEM_KORVEX (Start)   : Korvex executable: \"" + root + "/Korvex\""))
      << trace;
  // collect's default "TO": 60 s plus a second for every started 20 MB of
  // the (8-byte) archive.
  EXPECT_TRUE(Contains(trace, "\nEM_KORVEX (Transfer): Transfer archive to BMC, timeout=61 sec."))
      << trace;
  for (const auto& entry : Snapshot(m_Area.Path())) {
    const std::size_t slash = entry.first.rfind('/');
    const std::string base =
        slash == std::string::npos ? entry.first : entry.first.substr(slash + 1);
    EXPECT_NE("KVX_PWNED", base) << entry.first;
  }
  EXPECT_FALSE(Exists("KVX_PWNED"));
}

TEST_F(Fault, ToolThatIsADirectoryCountsAsInstalledAndAnswersStatusSix) {
  ASSERT_EQ(0, ::mkdir((m_Root + "/Korvex").c_str(), 0755));
  const CResult query = RunEmHost({"--tool-root", m_Root, "query"}, kStopBound);
  EXPECT_EQ(0, query.m_Exit) << query.m_Err;
  EXPECT_EQ("installed\n", query.m_Out);

  const CResult create = RunEmHost({"--tool-root", m_Root, "create"}, kReplyBound + kStopBound);
  EXPECT_EQ(1, create.m_Exit) << create.m_Out << create.m_Err;
  EXPECT_TRUE(Contains(create.m_Err,
                       "em-host: create: the archive was not created: Korvex could "
                       "not run: " +
                           m_Root +
                           "/Korvex is not executable (not a "
                           "regular file) (status 6)\n"))
      << create.m_Err;

  CEmHost host(ServeArguments(m_Root));
  host.WriteLine(kCreateRequest);
  EXPECT_TRUE(
      host.WaitForLine([](const std::string& l) { return l == CreateReply(6); }, kReplyBound))
      << host.Out() << host.Err();
  host.WriteLine(R"({"id":2,"control":"quit"})");
  EXPECT_EQ(0, host.WaitForExit(kStopBound)) << host.Err();
  // The tool could not be run: no exit of a tool process is reported.
  EXPECT_FALSE(Contains(ReadFile(m_Trace), "Korvex process exit"));
}

TEST_F(Fault, MalformedConfigurationFileIsAClearError) {
  const std::vector<std::pair<std::string, std::string>> files = {
      {"no-bracket.reg", "[SOFTWARE\\Halvane\\Korvex\\Setup\nFileRoot = /opt/k\n"},
      {"value-first.reg", "FileRoot = /opt/k\n"},
      {"bad-escape.reg", "[SOFTWARE\\Halvane\\Korvex\\Setup]\nFileRoot = \"/opt\\q\"\n"},
      {"open-quote.reg", "[SOFTWARE\\Halvane\\Korvex\\Setup]\nFileRoot = \"/opt/k\n"},
      {"empty-key.reg", "[]\n"},
      {"double-backslash.reg", "[SOFTWARE\\\\Halvane]\n"},
      {"twice.reg", "[A]\nx = 1\nx = 2\n"},
      {"binary.reg", std::string("\x7f"
                                 "ELF\x02\x01\x01\0\0\0\xff\xfe[\x80]\n=\n",
                                 18)},
  };
  for (const auto& file : files) {
    const std::string path = m_Area / file.first;
    WriteFile(path, file.second);
    for (const char* command : {"query", "create", "serve"}) {
      const CResult result = RunEmHost({"--registry", path, command}, kStopBound);
      EXPECT_EQ(3, result.m_Exit) << file.first << " " << command << ": " << result.m_Err;
      const std::string expected = "em-host: cannot load the configuration store: " + path + ":";
      EXPECT_EQ(0u, result.m_Err.rfind(expected, 0)) << file.first << ": " << result.m_Err;
      // One line, and it names the line of the file that is wrong.
      EXPECT_EQ(1, std::count(result.m_Err.begin(), result.m_Err.end(), '\n')) << result.m_Err;
      EXPECT_EQ("", result.m_Out);
    }
  }
}

TEST_F(Fault, MissingOrUnreadableConfigurationFileIsAClearError) {
  const std::string missing = m_Area / "missing.reg";
  CResult result = RunEmHost({"--registry", missing, "query"}, kStopBound);
  EXPECT_EQ(3, result.m_Exit);
  EXPECT_EQ("em-host: cannot load the configuration store: " + missing +
                ": cannot read registry file: No such file or directory\n",
            result.m_Err);

  const std::string directory = m_Area.Sub("a-directory");
  result = RunEmHost({"--registry", directory, "create"}, kStopBound);
  EXPECT_EQ(3, result.m_Exit);
  EXPECT_EQ("em-host: cannot load the configuration store: " + directory +
                ": cannot read registry file: Is a directory\n",
            result.m_Err);
}

TEST_F(Fault, ConfigurationFileNamingNoToolStopsBeforeAnyRequest) {
  const std::string file = m_Area / "elsewhere.reg";
  WriteFile(file,
            "[SOFTWARE\\Halvane\\Korvex\\Setup]\nFileRoot = " + m_Area.Path() + "/no-such-root\n");
  CResult result = RunEmHost({"--registry", file, "query"}, kStopBound);
  EXPECT_EQ(1, result.m_Exit) << result.m_Err;
  EXPECT_EQ("not installed\n", result.m_Out);
  result = RunEmHost({"--registry", file, "create"}, kStopBound);
  EXPECT_EQ(3, result.m_Exit) << result.m_Err;
  EXPECT_TRUE(Contains(result.m_Err, "em-host: create: ")) << result.m_Err;
}

}  // namespace
}  // namespace hardening
