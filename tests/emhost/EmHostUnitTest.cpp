// Unit tests of em-host's command line: the option parser and the status
// texts.
#include "host/emhost/cli/Options.h"
#include "host/emhost/cli/StatusText.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// ----- options -------------------------------------------------------------------

namespace {

bool Parse(const std::vector<std::string>& args, CEmHostOptions& out, std::string& error) {
  return ParseEmHostOptions(args, out, &error);
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
       "--cabinet needs an unsigned number, not \"4294967296\""},
      {{"--trace-level", "6", "query"}, "--trace-level takes 0 to 5"},
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

// ----- status texts ------------------------------------------------------------------

TEST(EmHostStatusText, NamesTheStatusAndItsMeaning) {
  EXPECT_EQ(StatusLine(5, EmJob::kCreate),
            "status 5: another Korvex collection is already running");
  EXPECT_EQ(StatusLine(3, EmJob::kTransfer),
            "status 3: there is no Korvex archive to transfer (create one first)");
  EXPECT_EQ(StatusLine(20, EmJob::kQuery),
            "status 20: the request is meant for another server cabinet");
  EXPECT_EQ(StatusLine(8, EmJob::kTransfer),
            "status 8: the BMC refused the file name (empty, absolute, or containing \"..\" or "
            "\"/\")");
  EXPECT_EQ(StatusLine(22, EmJob::kTransfer), "status 22: the BMC file transfer gave no answer");
  EXPECT_EQ(StatusLine(99, EmJob::kCreate), "status 99: unknown status");
}
