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

// The plug-in's entry points, from the library loaded once per process
// through em-host's loader and kept, as the host keeps its modules.
class CPlugin {
 public:
  static CPlugin& Instance() {
    static CPlugin plugin;
    return plugin;
  }

  bool Loaded() const { return m_Library != nullptr; }
  const std::string& Error() const { return m_Error; }

  EM_CreateFn m_Create = nullptr;
  EM_DeleteFn m_Delete = nullptr;
  EM_GetModuleNameFn m_Name = nullptr;
  EM_SetupActionFn m_Setup = nullptr;

 private:
  CPlugin() : m_Library(SharedModuleLibrary(KORVEX_PLUGIN_PATH, &m_Error)) {
    if (m_Library == nullptr) return;
    m_Create = m_Library->Create;
    m_Delete = m_Library->Delete;
    m_Name = m_Library->GetModuleName;
    m_Setup = m_Library->SetupAction;
  }

  std::string m_Error;
  const CModuleLibrary* m_Library;
};

class PluginTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::TraceToMemory();
    halvane::SetTraceSwitch(true);
    halvane::SetTraceLevel(5);
    ASSERT_TRUE(Plugin().Loaded()) << KORVEX_PLUGIN_PATH << ": " << Plugin().Error();
    ASSERT_FALSE(m_Dir.Path().empty());
    if (ForeignKorvexRuns()) GTEST_SKIP() << "a process named Korvex that is not ours runs";
    SetToolRoot(m_Dir.Path());
    void* module = nullptr;
    ASSERT_EQ(1, Plugin().m_Create(&module));
    m_Module = static_cast<CIExtensionModule*>(module);
    // Cabinet 0 is the library's start value; every test states its own.
    m_Module->SetServerCabinetNumber(0);
    halvane::TakeTrace();
  }

  void TearDown() override {
    if (m_Module != nullptr) {
      if (!m_Stopped) m_Module->Stop();
      EXPECT_EQ(1, Plugin().m_Delete(nullptr));
      EXPECT_EQ(0, Plugin().m_Delete(nullptr));
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

  CTempDir m_Dir;
  CRecordingSwitch m_Switch;
  CIExtensionModule* m_Module = nullptr;
  bool m_Stopped = true;
};

}  // namespace korvex_test
