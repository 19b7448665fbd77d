// Fixture of the module's unit tests, which link the module's code directly
// together with the stand-alone host services: trace captured in memory at
// level 5, an empty configuration store, a scratch directory as the tool's
// root and as the data directory of the clean-up (CleanUp), and helpers that build
// messages and the trace lines every scenario shares.
#pragma once

#include "host/HostControl.h"
#include "message/SipJson.h"
#include "module/EM_KORVEX.h"
#include "tests/module/ModuleTestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace korvex_test {

inline const std::string& Rule() {
  static const std::string rule(90, '-');
  return rule;
}

// Lines of constructing an EM_KORVEX (the serializer part first) with no
// thread monitor installed.
inline std::vector<CLine> ConstructionLines() {
  return {{4, "\nCTaskSerializer     : Enable all Tasks"},
          {3, "\nEM_KORVEX           : CLASS CREATED!"}};
}

// Lines of a successful GetKorvexPath that reads root (as stored).
inline std::vector<CLine> GetPathLines(const std::string& rootWithSlash) {
  const std::string key = halvane::ProductRootKey("Korvex");
  return {{3, "\nEM_KORVEX (GetPath) : Found Korvex root registry key: \"" + key + "\""},
          {4, "\nEM_KORVEX (GetPath) :   open Korvex setup key: \"" + key + "\\Setup\"..."},
          {4, "\nEM_KORVEX (GetPath) :   query Korvex file root value: \"FileRoot\"..."},
          {3, "\nEM_KORVEX (GetPath) : Korvex base dir:   \"" + rootWithSlash + "\""}};
}

inline void Append(std::vector<CLine>& to, const std::vector<CLine>& lines) {
  to.insert(to.end(), lines.begin(), lines.end());
}

class ModuleUnitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::TraceToMemory();
    halvane::SetTraceSwitch(true);
    halvane::SetTraceLevel(5);
    halvane::ClearRegistry();
    ASSERT_FALSE(m_Dir.Path().empty());
    CExtensionModule::ServerCabinetNr = 0;
    if (ForeignKorvexRuns()) GTEST_SKIP() << "a process named Korvex that is not ours runs";
    halvane::TakeTrace();
  }

  void TearDown() override {
    halvane::ClearRegistry();
    halvane::SetTraceLevel(5);
    halvane::TakeTrace();
  }

  std::string Root() const { return m_Dir.Root(); }
  std::string Archive() const { return m_Dir.Root() + "Korvex_Data.zip"; }
  std::string DataDir() const { return m_Dir / "data"; }
  // Setup action 4 on the scratch data directory instead of the fixed one.
  unsigned int CleanUp() const { return EM_KORVEX::SetupAction(4, DataDir().c_str()); }

  // The paths Start would build for the scratch root, without starting.
  void SetPaths(EM_KORVEX& module) const {
    module.m_ToolRoot = Root();
    module.m_ExecutablePath = Root() + "Korvex";
    module.m_ArchivePath = Archive();
  }

  static void Load(SipJson& message, const std::string& json) {
    std::string error;
    ASSERT_TRUE(message.FromJson(json.data(), json.size(), 32, &error)) << error << ": " << json;
  }

  // Runs scenario once per host trace level 1..5 and checks that the trace
  // it returns holds exactly the expected lines of that level or lower:
  // every line's text and its level at once. The scenario sets up its own
  // state and returns the part of the trace under test (usually TakeTrace()
  // after the call; the trace is taken empty before each run).
  static void ExpectTraceAtEveryLevel(const std::function<std::string()>& scenario,
                                      const std::function<std::vector<CLine>()>& expected) {
    for (unsigned int level = 1; level <= 5; ++level) {
      halvane::SetTraceLevel(level);
      halvane::TakeTrace();
      const std::string trace = scenario();
      EXPECT_EQ(TraceUpTo(expected(), level), trace) << "host trace level " << level;
    }
    halvane::SetTraceLevel(5);
    halvane::TakeTrace();
  }

  CTempDir m_Dir;
};

}  // namespace korvex_test
