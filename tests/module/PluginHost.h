// The test host's side of loading libEM_KORVEX.so: the four entry points,
// and a fixture that creates the module, gives it a scratch tool
// root in the configuration store and a recording switch.
#pragma once

#include "frame/ExtensionModule.h"
#include "frame/ModuleEntry.h"
#include "host/HostControl.h"
#include "message/SipJson.h"
#include "tests/module/ModuleTestSupport.h"
#include "tests/support/PluginLoader.h"
#include "tests/support/RecordingSwitch.h"

#include <gtest/gtest.h>

#include <string>

#ifndef KORVEX_PLUGIN_PATH
#error "KORVEX_PLUGIN_PATH must name libEM_KORVEX.so"
#endif

namespace korvex_test {

// The plug-in library, loaded once per process through em-host's loader and
// kept, as the host keeps its modules; its entry points are the loader's.
class CPlugin {
 public:
  static CPlugin& Instance() {
    static CPlugin plugin;
    return plugin;
  }

  bool Loaded() const { return m_Library != nullptr; }
  const std::string& Error() const { return m_Error; }
  // Only after Loaded() is true.
  const CModuleLibrary& Library() const { return *m_Library; }

 private:
  CPlugin() : m_Library(SharedModuleLibrary(KORVEX_PLUGIN_PATH, &m_Error)) {}

  std::string m_Error;
  const CModuleLibrary* m_Library;
};

class PluginTest : public ::testing::Test {
 protected:
  // A generous upper bound for waits on the worker thread: it ends as soon
  // as the reply comes and only matters for a broken module, which then
  // fails instead of hanging.
  static constexpr unsigned int kReplyWaitMs = 60000;

  void SetUp() override {
    halvane::TraceToMemory();
    halvane::SetTraceSwitch(true);
    halvane::SetTraceLevel(5);
    ASSERT_TRUE(Plugin().Loaded()) << KORVEX_PLUGIN_PATH << ": " << Plugin().Error();
    ASSERT_FALSE(m_Dir.Path().empty());
    if (ForeignKorvexRuns()) GTEST_SKIP() << "a process named Korvex that is not ours runs";
    SetToolRoot(m_Dir.Path());
    void* module = nullptr;
    ASSERT_EQ(1, Plugin().Library().Create(&module));
    m_Module = static_cast<CIExtensionModule*>(module);
    // Cabinet 0 is the library's start value; every test states its own.
    m_Module->SetServerCabinetNumber(0);
    halvane::TakeTrace();
  }

  void TearDown() override {
    if (m_Module != nullptr) {
      if (!m_Stopped) m_Module->Stop();
      EXPECT_EQ(1, Plugin().Library().Delete(nullptr));
      EXPECT_EQ(0, Plugin().Library().Delete(nullptr));
    }
    halvane::ClearRegistry();
    halvane::TakeTrace();
  }

  static CPlugin& Plugin() { return CPlugin::Instance(); }

  std::string Root() const { return m_Dir.Root(); }
  std::string Archive() const { return m_Dir.Root() + "Korvex_Data.zip"; }

  int Start(CISwitch* pSwitch) {
    m_Stopped = false;
    return m_Module->Start(pSwitch, 0x00030004);
  }
  int Stop() {
    m_Stopped = true;
    return m_Module->Stop();
  }

  // Hands a request to the module as the switch does; the message as the
  // switch gets it back is in json.
  int Request(const std::string& text, std::string* json = nullptr) {
    SipJson request;
    std::string error;
    EXPECT_TRUE(request.FromJson(text.data(), text.size(), 32, &error)) << error;
    const int result = m_Module->ModuleRequest(request);
    if (json != nullptr) *json = request.ToJson();
    return result;
  }

  // Starts the module on the recording switch, hands it one request it
  // queues, waits for the one reply and stops the module; the reply as the
  // switch got it in *reply.
  void RunForOneReply(const std::string& request, std::string* reply) {
    ASSERT_EQ(1, Start(&m_Switch));
    EXPECT_EQ(1, Request(request));
    ASSERT_TRUE(m_Switch.WaitForReplies(1, kReplyWaitMs));
    EXPECT_EQ(1, Stop());
    ASSERT_EQ(1u, m_Switch.Replies().size());
    *reply = m_Switch.Replies()[0].m_Json;
  }

  // A create request for every cabinet whose tool run fails: the one reply
  // carries status 6 and the trace shows traceLine.
  void ExpectCreateGives6(const std::string& traceLine) {
    std::string reply;
    ASSERT_NO_FATAL_FAILURE(
        RunForOneReply(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295}]}})", &reply));
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"CA":4294967295,"ST":6}]}})", reply);
    EXPECT_TRUE(ContainsInOrder(halvane::TakeTrace(), {traceLine}));
  }

  CTempDir m_Dir;
  CRecordingSwitch m_Switch;
  CIExtensionModule* m_Module = nullptr;
  bool m_Stopped = true;
};

}  // namespace korvex_test
