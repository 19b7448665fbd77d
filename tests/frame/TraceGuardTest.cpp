// Tests of the trace guard: with the host's trace switch off no Print call is
// made at all (the stand-alone host counts every call, filtered or not) and
// the arguments of a trace line, GetName() included, are not evaluated.
#include "frame/ExtensionModule.h"
#include "frame/Trace.h"
#include "host/HostControl.h"
#include "message/SipJson.h"
#include "tests/support/RecordingSwitch.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class CCountingModule : public CExtensionModule {
 public:
  const char* GetName() override {
    ++m_NameCalls;
    return "EM_KORVEX";
  }
  int m_NameCalls = 0;
};

class TraceGuardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::TraceToMemory();
    halvane::SetTraceLevel(5);
    halvane::SetTraceSwitch(false);
    halvane::TakeTrace();
    m_CallsBefore = halvane::PrintCallCount();
  }
  void TearDown() override {
    halvane::SetTraceSwitch(true);
    halvane::TakeTrace();
  }
  unsigned long PrintCalls() const { return halvane::PrintCallCount() - m_CallsBefore; }

  unsigned long m_CallsBefore = 0;
};

int Bump(int& counter) { return ++counter; }

TEST_F(TraceGuardTest, MacroEvaluatesNothingWhenTheSwitchIsOff) {
  int evaluated = 0;
  KORVEX_TRACE(1, "\nvalue %d", Bump(evaluated));
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(PrintCalls(), 0u);

  halvane::SetTraceSwitch(true);
  KORVEX_TRACE(1, "\nvalue %d", Bump(evaluated));
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(PrintCalls(), 1u);
  EXPECT_EQ(halvane::TakeTrace(), "\nvalue 1");
}

TEST_F(TraceGuardTest, MacroIsOneStatement) {
  int evaluated = 0;
  halvane::SetTraceSwitch(true);
  if (evaluated != 0)
    KORVEX_TRACE(1, "\nnot here %d", Bump(evaluated));
  else
    KORVEX_TRACE(1, "\nhere %d", Bump(evaluated));
  EXPECT_EQ(halvane::TakeTrace(), "\nhere 1");
}

TEST_F(TraceGuardTest, CabinetNumberWithTheSwitchOffCallsNeitherPrintNorGetName) {
  CCountingModule module;
  EXPECT_EQ(module.SetServerCabinetNumber(4), 1);
  EXPECT_EQ(CExtensionModule::ServerCabinetNr, 4u);
  EXPECT_EQ(module.m_NameCalls, 0);
  EXPECT_EQ(PrintCalls(), 0u);

  halvane::SetTraceSwitch(true);
  EXPECT_EQ(module.SetServerCabinetNumber(4), 1);
  EXPECT_EQ(module.m_NameCalls, 1);
  EXPECT_EQ(PrintCalls(), 1u);
  EXPECT_EQ(halvane::TakeTrace(), "\n\nEM_KORVEX           : ## Server cabinet number = 4 ##\n");
}

TEST_F(TraceGuardTest, StartWithTheSwitchOffOnlyRegistersTheSource) {
  CCountingModule module;
  CRecordingSwitch recordingSwitch;
  EXPECT_EQ(module.Start(&recordingSwitch, 0x20005), 1);
  EXPECT_EQ(PrintCalls(), 0u);
  // The registration step asks for the name and the service type whatever
  // the switch says; the two trace lines' arguments are not evaluated.
  EXPECT_EQ(module.m_NameCalls, 1);
  EXPECT_EQ(recordingSwitch.ServiceTypeQueries(), 2u);
  EXPECT_EQ(module.m_ModuleLayer, 2);
  EXPECT_EQ(module.m_ModuleIndex, 5);
  EXPECT_EQ(halvane::TakeTrace(), "");
}

TEST_F(TraceGuardTest, MessageTraceWithTheSwitchOffCallsNoPrint) {
  SipJson message;
  const std::string text = R"({"SIP":{"V":1,"CMD":[{"OC":13312,"CA":1,"DA":"abc"}]}})";
  ASSERT_TRUE(message.FromJson(text.data(), text.size()));
  CExtensionModule::TraceSip(1, "EM_KORVEX (REQUEST)", message);
  EXPECT_EQ(PrintCalls(), 0u);
  EXPECT_EQ(halvane::TakeTrace(), "");
  EXPECT_EQ(message.ToJson(), text);
}

TEST_F(TraceGuardTest, DefaultsWithTheSwitchOffCallNoPrint) {
  CCountingModule module;
  SipJson message;
  EXPECT_EQ(module.ModuleRequest(message), 0);
  EXPECT_EQ(module.Notify(0x20000, nullptr, nullptr), 0);
  EXPECT_EQ(module.Start(nullptr, 1), 1);
  EXPECT_EQ(PrintCalls(), 0u);
}

}  // namespace
