// em-host's command line: the accepted syntax, the defaults and the usage
// errors, one text for each way an argument can be wrong.
#include "host/emhost/cli/Options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

bool Parse(const std::vector<std::string>& args, CEmHostOptions& out, std::string& error) {
  return ParseEmHostOptions(args, out, &error);
}

// The error of args, which must be refused.
std::string ErrorOf(const std::vector<std::string>& args) {
  CEmHostOptions o;
  std::string error;
  EXPECT_FALSE(Parse(args, o, error));
  return error;
}

}  // namespace

TEST(EmHostOptions, GlobalOptionsAndCommand) {
  CEmHostOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"--module", "/m.so", "--tool-root=/opt/k", "--cabinet", "0x10", "--bmc-dir",
                     "/b", "--trace", "-", "--trace-level", "3", "--service-type", "2", "--hti",
                     "status:7", "collect", "n.zip", "--timeout", "9"},
                    o, error))
      << error;
  EXPECT_EQ(o.m_Command, EmCommand::kCollect);
  EXPECT_EQ(o.m_ArchiveName, "n.zip");
  EXPECT_EQ(o.m_ModulePath, "/m.so");
  EXPECT_EQ(o.m_ToolRoot, "/opt/k");
  EXPECT_EQ(o.m_Cabinet, 16u);
  EXPECT_EQ(o.m_BmcDir, "/b");
  EXPECT_EQ(o.m_TraceFile, "-");
  EXPECT_EQ(o.m_TraceLevel, 3u);
  EXPECT_EQ(o.m_ServiceType, 2u);
  EXPECT_EQ(o.m_Hti.m_Kind, CHtiMode::kStatus);
  EXPECT_EQ(o.m_Hti.m_Status, 7u);
  EXPECT_EQ(o.m_TimeoutSec, 9u);
}

TEST(EmHostOptions, Defaults) {
  CEmHostOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"transfer", "x.zip"}, o, error)) << error;
  EXPECT_EQ(o.m_TimeoutSec, 0u);  // the transfer's "TO": derived from the archive's size
  EXPECT_FALSE(o.m_TimeoutGiven);
  EXPECT_EQ(o.m_ServiceType, 5u);
  EXPECT_EQ(o.m_TraceLevel, 0u);
  EXPECT_EQ(o.m_Cabinet, 0u);
  EXPECT_EQ(o.m_Hti.m_Kind, CHtiMode::kCopy);
  EXPECT_EQ(o.m_BmcDir, AbsolutePath("bmc"));
  EXPECT_EQ(o.m_BmcDir[0], '/');
  CEmHostOptions create;
  ASSERT_TRUE(Parse({"create"}, create, error)) << error;
  EXPECT_EQ(create.m_TimeoutSec, 0u);  // no limit
}

TEST(EmHostOptions, UsageErrorsSayWhatIsWrong) {
  struct CCase {
    std::vector<std::string> m_Args;
    const char* m_Error;
  };
  const CCase cases[] = {
      {{}, "no command given"},
      {{"frobnicate"}, "unknown command \"frobnicate\""},
      {{"--bogus", "query"}, "unknown option --bogus"},
      {{"-x", "query"}, "unknown option -x"},
      {{"query", "--cabinet"}, "--cabinet needs a value"},
      {{"--cabinet", "-1", "query"}, "--cabinet needs an unsigned number, not \"-1\""},
      {{"--cabinet", "4294967296", "query"},
       "--cabinet 4294967296 is out of range (0 to 4294967295)"},
      {{"--trace-level", "6", "query"}, "--trace-level 6 is out of range (0 to 5)"},
      {{"--hti", "loud", "query"}, "--hti takes copy, status:N, silent or absent, not \"loud\""},
      {{"--tool-root", "/a", "--registry", "/r", "query"},
       "--tool-root and --registry exclude each other"},
      {{"transfer"}, "transfer needs a NAME"},
      {{"query", "extra"}, "unexpected argument \"extra\" for query"},
      {{"query", "--timeout", "3"}, "--timeout applies to create, transfer and collect only"},
      {{"create", "--no-start"}, "--no-start applies to serve only"},
  };
  for (const CCase& c : cases) {
    CEmHostOptions o;
    std::string error;
    EXPECT_FALSE(Parse(c.m_Args, o, error));
    EXPECT_EQ(error, c.m_Error);
  }
}

TEST(EmHostOptions, DefaultTransferTimeoutLeavesRoomForASlowDisk) {
  EXPECT_EQ(DefaultTransferTimeout(0), 60u);
  EXPECT_EQ(DefaultTransferTimeout(1), 61u);
  EXPECT_EQ(DefaultTransferTimeout(20000000), 61u);
  EXPECT_EQ(DefaultTransferTimeout(4ull << 30), 60u + 215u);  // 4 GiB at 20 MB/s
  EXPECT_EQ(DefaultTransferTimeout(1ull << 40), 55036u);
  EXPECT_EQ(DefaultTransferTimeout(~0ull - 1000000000ull), 65535u);
}

TEST(EmHostOptions, ARepeatedOptionIsAnErrorNamingIt) {
  EXPECT_EQ(ErrorOf({"--cabinet", "1", "--cabinet=2", "query"}),
            "--cabinet is given more than once");
  EXPECT_EQ(ErrorOf({"--module", "/a.so", "query", "--module", "/a.so"}),
            "--module is given more than once");
  EXPECT_EQ(ErrorOf({"--hti", "silent", "--hti", "copy", "query"}),
            "--hti is given more than once");
  EXPECT_EQ(ErrorOf({"serve", "--no-start", "--no-start"}), "--no-start is given more than once");
  // Named before its second value is looked at.
  EXPECT_EQ(ErrorOf({"--trace-level", "2", "--trace-level", "9", "query"}),
            "--trace-level is given more than once");
}

TEST(EmHostOptions, EveryOptionWithAValueSaysWhenItIsMissing) {
  const char* const options[] = {"--module",  "--tool-root", "--registry",    "--cabinet",
                                 "--bmc-dir", "--trace",     "--trace-level", "--service-type",
                                 "--hti",     "--timeout",   "--tool-log",    "--heartbeat"};
  for (const std::string option : options) {
    EXPECT_EQ(ErrorOf({"query", option}), option + " needs a value");
    // A value given is taken whatever it looks like, even an option's name.
    CEmHostOptions o;
    std::string error;
    Parse({option, "--help", "query"}, o, error);
    EXPECT_NE(o.m_Command, EmCommand::kHelp) << option;
    EXPECT_NE(error, option + " needs a value");
  }
}

TEST(EmHostOptions, EmptyValuesSayWhatTheOptionNeeds) {
  EXPECT_EQ(ErrorOf({"--module=", "query"}), "--module needs a path");
  EXPECT_EQ(ErrorOf({"--tool-root", "", "query"}), "--tool-root needs a directory");
  EXPECT_EQ(ErrorOf({"--registry=", "query"}), "--registry needs a file");
  EXPECT_EQ(ErrorOf({"--bmc-dir=", "query"}), "--bmc-dir needs a directory");
  EXPECT_EQ(ErrorOf({"--tool-log=", "query"}), "--tool-log needs a file");
  EXPECT_EQ(ErrorOf({"--trace=", "query"}), "--trace needs a file, or - for standard error");
  EXPECT_EQ(ErrorOf({"--heartbeat=", "create"}), "--heartbeat needs an unsigned number, not \"\"");
  EXPECT_EQ(ErrorOf({"--hti=", "query"}), "--hti takes copy, status:N, silent or absent, not \"\"");
}

TEST(EmHostOptions, UnknownOptionsAreNamedWithoutTheirValue) {
  EXPECT_EQ(ErrorOf({"--bogus=3", "query"}), "unknown option --bogus");
  EXPECT_EQ(ErrorOf({"--help=yes", "query"}), "unknown option --help");
  EXPECT_EQ(ErrorOf({"--no-start=1", "serve"}), "--no-start takes no value");
  EXPECT_EQ(ErrorOf({"--no-start=", "serve"}), "--no-start takes no value");
  // The first wrong argument is the one reported.
  EXPECT_EQ(ErrorOf({"--cabinet", "x", "--bogus", "query"}),
            "--cabinet needs an unsigned number, not \"x\"");
  EXPECT_EQ(ErrorOf({"--bogus", "--help"}), "unknown option --bogus");
}

TEST(EmHostOptions, HelpStandsAnywhereBeforeAnError) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"-h"},
                                             {"--help"},
                                             {"query", "--help"},
                                             {"frobnicate", "-h"},
                                             {"--cabinet", "1", "-h"}}) {
    CEmHostOptions o;
    std::string error;
    ASSERT_TRUE(Parse(args, o, error)) << error;
    EXPECT_EQ(o.m_Command, EmCommand::kHelp);
  }
}

TEST(EmHostOptions, DoubleDashAndSingleDashAreArguments) {
  CEmHostOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"transfer", "--", "--cabinet"}, o, error)) << error;
  EXPECT_EQ(o.m_ArchiveName, "--cabinet");
  EXPECT_EQ(o.m_Cabinet, 0u);
  CEmHostOptions dash;
  ASSERT_TRUE(Parse({"transfer", "-"}, dash, error)) << error;
  EXPECT_EQ(dash.m_ArchiveName, "-");
  EXPECT_EQ(ErrorOf({"--", "query", "--help"}), "unexpected argument \"--help\" for query");
}

TEST(EmHostOptions, PathsAreMadeAbsoluteAndNumbersMayBeHexadecimal) {
  CEmHostOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"--tool-root", "./root", "--bmc-dir", "b", "--tool-log", "l.log", "--module",
                     "m.so", "--service-type", "0xff", "--trace-level", "5", "info"},
                    o, error))
      << error;
  EXPECT_EQ(o.m_ToolRoot, AbsolutePath("root"));
  EXPECT_EQ(o.m_BmcDir, AbsolutePath("b"));
  EXPECT_EQ(o.m_ToolLog, AbsolutePath("l.log"));
  EXPECT_EQ(o.m_ToolRoot[0], '/');
  EXPECT_EQ(o.m_ModulePath, "m.so");  // the module path is taken as given
  EXPECT_EQ(o.m_ServiceType, 255u);
  EXPECT_EQ(o.m_TraceLevel, 5u);
  EXPECT_EQ(o.m_CommandName, "info");
}

TEST(EmHostOptions, TimeoutIsMarkedGivenEvenWhenZero) {
  CEmHostOptions o;
  std::string error;
  ASSERT_TRUE(Parse({"transfer", "x", "--timeout=0"}, o, error)) << error;
  EXPECT_TRUE(o.m_TimeoutGiven);
  EXPECT_EQ(o.m_TimeoutSec, 0u);
}
