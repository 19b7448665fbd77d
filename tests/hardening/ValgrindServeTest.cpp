// An em-host serve session under valgrind memcheck that makes the module
// answer every status it can be brought to answer from input: 0, 1, 3, 5,
// 6, 20 and 22, and a status passed on from the file transfer (8). It ends
// with a stop while the tool hangs and two tasks wait in the queue, so the
// one deliberate drop of queued records happens too. Memcheck must find no
// invalid access and no leak beyond that drop (tests/sanitizer/valgrind.supp).
//
// Status 13 (an exception escaped while a request was dispatched) cannot be
// provoked from input: the message readers never throw on any document a
// line can hold. The module's unit tests provoke it with a throwing message.
#include "tests/hardening/HardeningSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace hardening {
namespace {

using namespace std::chrono_literals;

std::string FindValgrind() {
  for (const char* candidate : {"/usr/bin/valgrind", "/usr/local/bin/valgrind"}) {
    if (::access(candidate, X_OK) == 0) return candidate;
  }
  return "";
}

std::string Request(int id, const std::string& command) {
  return "{\"id\":" + std::to_string(id) + ",\"request\":{\"SIP\":{\"V\":1,\"CMD\":[" + command +
         "]}}}";
}

std::string Ack(int id, int result, const std::string& command) {
  return "{\"id\":" + std::to_string(id) +
         ",\"event\":\"ack\",\"result\":" + std::to_string(result) +
         ",\"message\":{\"SIP\":{\"V\":1,\"CMD\":[" + command + "]}}}";
}

std::string Reply(int id, const std::string& message) {
  return "{\"id\":" + std::to_string(id) + ",\"event\":\"reply\",\"message\":" + message + "}";
}

std::string WaitLine(int id, int result) {
  return "{\"id\":" + std::to_string(id) +
         ",\"event\":\"control\",\"control\":\"wait\",\"result\":" + std::to_string(result) + "}";
}

TEST(ValgrindServe, EveryReachableStatusWithoutMemoryErrorsOrLeaks) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "valgrind cannot run a sanitizer build";
#endif
  const std::string valgrind = FindValgrind();
  if (valgrind.empty()) GTEST_SKIP() << "valgrind is not installed";
  if (!WaitUntilNoneNamed("Korvex", 30s)) GTEST_SKIP() << "a foreign Korvex keeps running";

  CTempDir area;
  const std::string root = area.Sub("root");
  const std::string bmc = area.Sub("bmc");
  const std::string fifo = area / "block";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  // The tool does what the file "mode" beside it says.
  WriteFile(root + "/mode", "ok");
  WriteScript(root + "/Korvex",
              "here=$(dirname \"$0\")\n"
              "case $(cat \"$here/mode\") in\n"
              "  ok) echo archive > \"$here/Korvex_Data.zip\"; exit 0 ;;\n"
              "  fail) exit 3 ;;\n"
              "  hang) read -r line < " +
                  ShellQuote(fifo) +
                  " ;;\n"
                  "esac\n"
                  "exit 0");
  // A Korvex of somebody else, for status 5.
  const std::string foreignDir = area.Sub("foreign");
  const std::string foreignFifo = area / "foreign-block";
  ASSERT_EQ(0, ::mkfifo(foreignFifo.c_str(), 0600));
  WriteScript(foreignDir + "/Korvex", "read -r line < " + ShellQuote(foreignFifo));

  const std::string log = area / "memcheck.log";
  CEmHost host({"--trace-children=no", "--error-exitcode=99", "--leak-check=full",
                "--show-leak-kinds=definite,indirect,possible",
                "--errors-for-leak-kinds=definite,indirect,possible",
                std::string("--suppressions=") + KORVEX_VALGRIND_SUPPRESSIONS, "--log-file=" + log,
                EmHostBinary(), "--tool-root", root, "--bmc-dir", bmc, "--trace",
                area / "trace.txt", "--trace-level", "5", "serve"},
               "", valgrind);

  auto expect = [&](const std::string& line) {
    EXPECT_TRUE(host.WaitForLine([&](const std::string& l) { return l == line; }, 120s))
        << "missing: " << line << "\n"
        << host.Out() << host.Err();
  };

  // 0: the tool is installed. 1: an opcode the module does not handle.
  // 20: a request for another cabinet.
  host.WriteLine(Request(1, R"({"OC":13312,"CA":0})"));
  expect(Ack(1, 1, R"({"OC":13312,"CA":0,"ST":0,"DA":1})"));
  host.WriteLine(Request(2, R"({"OC":13317,"CA":0})"));
  expect(Ack(2, 0, R"({"OC":13317,"CA":0,"ST":1})"));
  host.WriteLine(Request(3, R"({"OC":13313,"CA":9})"));
  expect(Ack(3, 0, R"({"OC":13313,"CA":9,"ST":20})"));
  // 22 now, 3 later: there is no archive yet.
  host.WriteLine(Request(4, R"({"OC":13314,"CA":0,"TO":30,"DA":"vg.zip"})"));
  expect(Ack(4, 1, R"({"OC":13314,"CA":0,"TO":30,"DA":"vg.zip","ST":22})"));
  expect(Reply(4, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"DA":"vg.zip","ST":3}]}})"));
  // 0: the archive is created, and transferred.
  host.WriteLine(Request(5, R"({"OC":13313,"CA":0})"));
  expect(Reply(5, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"ST":0}]}})"));
  host.WriteLine(Request(6, R"({"OC":13314,"CA":0,"TO":30,"DA":"vg.zip"})"));
  expect(Reply(6, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"ST":0}]}})"));
  EXPECT_EQ("archive\n", ReadFile(bmc + "/vg.zip"));
  // 8, passed on from the file transfer: a name that leaves the directory.
  host.WriteLine(Request(7, R"({"OC":13314,"CA":0,"TO":30,"DA":"../vg.zip"})"));
  expect(Reply(7, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"CA":0,"TO":30,"ST":8}]}})"));

  // 5: another Korvex runs.
  pid_t foreign = -1;
  {
    const std::string path = foreignDir + "/Korvex";
    char* const argv[] = {const_cast<char*>(path.c_str()), nullptr};
    ASSERT_EQ(0, ::posix_spawn(&foreign, path.c_str(), nullptr, nullptr, argv, environ));
  }
  ASSERT_TRUE(WaitUntil([&] { return !ProcessesNamed("Korvex", area.Path()).empty(); }, 30s));
  host.WriteLine(Request(8, R"({"OC":13313,"CA":0})"));
  expect(Reply(8, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"ST":5}],"C":true}})"));
  ::kill(foreign, SIGKILL);
  int status = 0;
  ::waitpid(foreign, &status, 0);

  // 6: the tool fails.
  WriteFile(root + "/mode", "fail");
  host.WriteLine(Request(9, R"({"OC":13313,"CA":0})"));
  expect(Reply(9, R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":0,"ST":6}]}})"));

  // Refused lines cost nothing either.
  host.WriteLine("oops");
  expect(R"({"event":"error","line":10,"error":"JSON parse error at offset 0: Invalid value."})");

  // The stop: the tool hangs in task 10, tasks 11 and 12 wait in the queue
  // and are dropped; the worker is ended and the tool terminated.
  WriteFile(root + "/mode", "hang");
  host.WriteLine(Request(10, R"({"OC":13313,"CA":0})"));
  ASSERT_TRUE(WaitUntil([&] { return !ProcessesNamed("Korvex", area.Path()).empty(); }, 120s));
  host.WriteLine(Request(11, R"({"OC":13313,"CA":0})"));
  host.WriteLine(Request(12, R"({"OC":13314,"CA":0,"DA":"late.zip"})"));
  expect(Ack(12, 1, R"({"OC":13314,"CA":0,"DA":"late.zip","ST":22})"));
  host.WriteLine(R"({"id":13,"control":"wait","timeout_ms":500})");
  expect(WaitLine(13, 0));
  host.CloseInput();
  EXPECT_EQ(0, host.WaitForExit(300s)) << host.Err();

  const std::string report = ReadFile(log);
  EXPECT_NE(std::string::npos, report.find("ERROR SUMMARY: 0 errors from 0 contexts")) << report;
  // The dropped records were there, and were the only thing not freed.
  EXPECT_NE(std::string::npos, report.find("definitely lost: 0 bytes in 0 blocks")) << report;
  EXPECT_NE(std::string::npos, report.find("indirectly lost: 0 bytes in 0 blocks")) << report;
  EXPECT_NE(std::string::npos, report.find("possibly lost: 0 bytes in 0 blocks")) << report;
  EXPECT_EQ(std::string::npos, report.find("suppressed: 0 bytes in 0 blocks")) << report;
  EXPECT_TRUE(WaitUntilNoneNamed("Korvex", 30s, area.Path()));
  KillAllNamed("Korvex", area.Path());
  std::printf("[ valgrind ] %s\n", log.c_str());
  for (const std::string& line : {std::string("ERROR SUMMARY"), std::string("lost:"),
                                  std::string("suppressed:"), std::string("reachable:")}) {
    for (std::size_t at = report.find(line); at != std::string::npos;
         at = report.find(line, at + 1)) {
      const std::size_t start = report.rfind('\n', at) + 1;
      std::printf("[ valgrind ] %s\n", report.substr(start, report.find('\n', at) - start).c_str());
    }
  }
}

}  // namespace
}  // namespace hardening
