// The tool-root lookup shared by the module and em-host: the root as the
// configuration store holds it, always ending in "/", the module's trace
// lines when traced, and none at all when the caller asks for silence.
#include "host/HostControl.h"
#include "module/ToolRoot.h"
#include "tests/module/ModuleTestSupport.h"
#include "tests/module/ModuleUnitFixture.h"

#include <gtest/gtest.h>

#include <string>

using namespace korvex_test;

namespace {

// ModuleUnitTest: trace in memory at level 5, an empty configuration store.
TEST_F(ModuleUnitTest, ToolRootTracedLookupGivesTheRootWithASlashAndTheModulesLines) {
  SetToolRoot("/opt/korvex");
  std::string root;
  EXPECT_EQ(1, korvex::LookUpToolRoot(root));
  EXPECT_EQ("/opt/korvex/", root);
  const std::string key = halvane::ProductRootKey("Korvex");
  EXPECT_EQ("\nEM_KORVEX (GetPath) : Found Korvex root registry key: \"" + key + "\"" +
                "\nEM_KORVEX (GetPath) :   open Korvex setup key: \"" + key + "\\Setup\"..." +
                "\nEM_KORVEX (GetPath) :   query Korvex file root value: \"FileRoot\"..." +
                "\nEM_KORVEX (GetPath) : Korvex base dir:   \"/opt/korvex/\"",
            halvane::TakeTrace());
}

TEST_F(ModuleUnitTest, ToolRootSilentLookupGivesTheSameRootWithoutAnyPrintCall) {
  for (const char* stored : {"/opt/korvex/", "/opt/korvex", ""}) {
    SetToolRoot(stored);
    std::string traced;
    std::string silent;
    EXPECT_EQ(1, korvex::LookUpToolRoot(traced));
    halvane::TakeTrace();
    const unsigned long before = halvane::PrintCallCount();
    EXPECT_EQ(1, korvex::LookUpToolRoot(silent, korvex::ToolRootTrace::kSilent));
    EXPECT_EQ(before, halvane::PrintCallCount()) << stored;
    EXPECT_EQ(traced, silent) << stored;
    EXPECT_EQ('/', silent.back()) << stored;
  }
}

TEST_F(ModuleUnitTest, ToolRootWithNoProductKeyGives0WithOnlyTheLevel2LineOrNothing) {
  std::string root = "unchanged";
  EXPECT_EQ(0, korvex::LookUpToolRoot(root));
  EXPECT_EQ("unchanged", root);
  EXPECT_EQ(
      "\nEM_KORVEX (GetPath) : ## Korvex pointer key not existing - no Halvane component "
      "installed.",
      halvane::TakeTrace());
  EXPECT_EQ(0, korvex::LookUpToolRoot(root, korvex::ToolRootTrace::kSilent));
  EXPECT_EQ("", halvane::TakeTrace());
}

TEST_F(ModuleUnitTest, ToolRootWithASetupKeyWithoutFileRootGives0AndTheQueryError) {
  halvane::SetRegistryValue(SetupKeyPath(), "Other", "/opt/korvex");
  std::string root;
  EXPECT_EQ(0, korvex::LookUpToolRoot(root));
  EXPECT_NE(std::string::npos,
            halvane::TakeTrace().find("Could not query registry value \"FileRoot\" in Korvex "
                                      "setup key!"));
  const unsigned long before = halvane::PrintCallCount();
  EXPECT_EQ(0, korvex::LookUpToolRoot(root, korvex::ToolRootTrace::kSilent));
  EXPECT_EQ(before, halvane::PrintCallCount());
}

}  // namespace
