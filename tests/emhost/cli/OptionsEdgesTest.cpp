// em-host's command line at its edges: --version, numbers out of range, an
// empty NAME, the transfer's 16-bit "TO", the default BMC directory, and
// the table that --help, the manual page and the completion are made of.
#include "host/emhost/cli/Options.h"
#include "host/emhost/cli/Output.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

std::string ErrorOf(const std::vector<std::string>& args) {
  CEmHostOptions o;
  std::string error;
  EXPECT_FALSE(ParseEmHostOptions(args, o, &error));
  return error;
}

CEmHostOptions Parsed(const std::vector<std::string>& args) {
  CEmHostOptions o;
  std::string error;
  EXPECT_TRUE(ParseEmHostOptions(args, o, &error)) << error;
  return o;
}

}  // namespace

TEST(EmHostOptionEdges, VersionStandsAnywhereBeforeAnError) {
  EXPECT_EQ(Parsed({"--version"}).m_Command, EmCommand::kVersion);
  EXPECT_EQ(Parsed({"--module", "/m.so", "--version"}).m_Command, EmCommand::kVersion);
  EXPECT_EQ(Parsed({"--module", "/m.so", "--version"}).m_ModulePath, "/m.so");
  EXPECT_EQ(Parsed({"query", "--version"}).m_Command, EmCommand::kVersion);
  EXPECT_EQ(Parsed({"--help", "--version"}).m_Command, EmCommand::kHelp);
  EXPECT_EQ(ErrorOf({"--bogus", "--version"}), "unknown option --bogus");
  EXPECT_EQ(ErrorOf({"--version=1"}), "unknown option --version");
}

TEST(EmHostOptionEdges, NumbersOutOfRangeSayTheRange) {
  EXPECT_EQ(ErrorOf({"create", "--timeout", "99999999999"}),
            "--timeout 99999999999 is out of range (0 to 4294967295)");
  // Beyond even 64 bits.
  EXPECT_EQ(ErrorOf({"create", "--timeout", "999999999999999999999999"}),
            "--timeout 999999999999999999999999 is out of range (0 to 4294967295)");
  EXPECT_EQ(ErrorOf({"--cabinet=0x100000000", "query"}),
            "--cabinet 0x100000000 is out of range (0 to 4294967295)");
  EXPECT_EQ(ErrorOf({"--trace-level", "0x6", "query"}),
            "--trace-level 0x6 is out of range (0 to 5)");
  // Not numbers at all stay what they were.
  EXPECT_EQ(ErrorOf({"create", "--timeout", "-1"}),
            "--timeout needs an unsigned number, not \"-1\"");
  EXPECT_EQ(ErrorOf({"create", "--timeout", "9x"}),
            "--timeout needs an unsigned number, not \"9x\"");
  // The edges themselves are taken.
  EXPECT_EQ(Parsed({"create", "--timeout", "4294967295"}).m_TimeoutSec, 4294967295u);
  EXPECT_EQ(Parsed({"--trace-level", "5", "query"}).m_TraceLevel, 5u);
}

TEST(EmHostOptionEdges, TransferTimeoutFitsTheModulesSixteenBits) {
  EXPECT_EQ(Parsed({"transfer", "a.zip", "--timeout", "65535"}).m_TimeoutSec, 65535u);
  EXPECT_EQ(ErrorOf({"transfer", "a.zip", "--timeout", "65536"}),
            "--timeout 65536 is out of range for transfer (0 to 65535)");
  // create and collect: em-host's own wait, any 32-bit number.
  EXPECT_EQ(Parsed({"collect", "a.zip", "--timeout", "65536"}).m_TimeoutSec, 65536u);
  EXPECT_EQ(Parsed({"create", "--timeout", "0"}).m_TimeoutSec, 0u);
}

TEST(EmHostOptionEdges, AnEmptyNameIsAUsageError) {
  EXPECT_EQ(ErrorOf({"transfer", ""}), "transfer needs a NAME, not an empty one");
  EXPECT_EQ(ErrorOf({"collect", ""}), "collect needs a NAME, not an empty one");
  EXPECT_EQ(ErrorOf({"collect", "--", ""}), "collect needs a NAME, not an empty one");
  EXPECT_EQ(Parsed({"collect", " "}).m_ArchiveName, " ");  // the BMC judges names
}

TEST(EmHostOptionEdges, TheDefaultBmcDirectoryIsMarked) {
  const CEmHostOptions defaulted = Parsed({"transfer", "a.zip"});
  EXPECT_TRUE(defaulted.m_BmcDirDefault);
  EXPECT_EQ(defaulted.m_BmcDir, AbsolutePath("bmc"));
  const CEmHostOptions given = Parsed({"--bmc-dir", "bmc", "transfer", "a.zip"});
  EXPECT_FALSE(given.m_BmcDirDefault);
  EXPECT_EQ(given.m_BmcDir, AbsolutePath("bmc"));
}

// Every option the documentation lists is one the parser takes, with a value
// exactly when the documentation names one; and every command likewise.
TEST(EmHostOptionEdges, TheDocumentedOptionsAndCommandsAreTheAcceptedOnes) {
  std::set<std::string> names;
  for (const CEmHostOptionInfo& option : EmHostOptionInfo()) {
    EXPECT_TRUE(names.insert(option.m_Name).second) << option.m_Name;
    EXPECT_FALSE(option.m_Help.empty()) << option.m_Name;
    if (option.m_Name == "--help" || option.m_Name == "--version") continue;
    if (option.m_Value.empty()) {
      EXPECT_EQ(ErrorOf({option.m_Name + "=x", "serve"}), option.m_Name + " takes no value");
    } else {
      EXPECT_EQ(ErrorOf({"query", option.m_Name}), option.m_Name + " needs a value");
    }
  }
  EXPECT_EQ(names.size(), 15u);
  EXPECT_TRUE(names.count("--help") && names.count("--version") && names.count("--timeout"));
  std::set<std::string> commands;
  for (const CEmHostCommandInfo& command : EmHostCommandInfo()) {
    commands.insert(command.m_Name);
    std::vector<std::string> args{command.m_Name};
    if (!command.m_Arguments.empty()) {
      EXPECT_EQ(ErrorOf(args), command.m_Name + " needs a NAME");
      args.push_back("n.zip");
    }
    EXPECT_EQ(Parsed(args).m_CommandName, command.m_Name);
  }
  EXPECT_EQ(commands, (std::set<std::string>{"query", "create", "transfer", "collect", "cleanup",
                                             "info", "serve"}));
}

TEST(EmHostOptionEdges, AgeTextUsesTheTwoLargestUnits) {
  EXPECT_EQ(AgeText(0), "0 s");
  EXPECT_EQ(AgeText(59), "59 s");
  EXPECT_EQ(AgeText(60), "1 min 0 s");
  EXPECT_EQ(AgeText(3599), "59 min 59 s");
  EXPECT_EQ(AgeText(3600 + 5 * 60 + 7), "1 h 5 min");
  EXPECT_EQ(AgeText(86399), "23 h 59 min");
  EXPECT_EQ(AgeText(3 * 86400 + 4 * 3600 + 59), "3 d 4 h");
  EXPECT_EQ(AgeText(400ull * 86400), "400 d 0 h");
}
