// Tests of CExtensionModule: the virtual slot order the host calls through,
// the defaults, Start with its event-log source traces, Notify and the
// shutdown flag, the cabinet number and the base ModuleRequest.
#include "frame/ExtensionModule.h"
#include "host/HostControl.h"
#include "message/SipJson.h"
#include "tests/frame/MemoryTraceTest.h"
#include "tests/support/RecordingSwitch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace {

// ----- slot order -------------------------------------------------------------

std::vector<std::string> g_Calls;

std::string Addr(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

// Overrides every slot and logs which one ran with which arguments.
class CSlotModule : public CExtensionModule {
 public:
  ~CSlotModule() override { g_Calls.push_back("~CSlotModule"); }
  // The matching allocation function: without it the compiler takes the
  // class's delete for a mismatch with the global new (-Wmismatched-new-delete
  // at -O0, which the sanitizer builds use).
  static void* operator new(std::size_t size) { return ::operator new(size); }
  static void* operator new(std::size_t, void* place) { return place; }
  static void operator delete(void* pointer) {
    g_Calls.push_back("delete");
    ::operator delete(pointer);
  }

  int GetProperties(_ExtensionModuleProperties& properties) override {
    g_Calls.push_back("GetProperties " + Addr(&properties));
    return 102;
  }
  int DetectHardware() override {
    g_Calls.push_back("DetectHardware");
    return 103;
  }
  int Start(CISwitch* pSwitch, unsigned int moduleId) override {
    g_Calls.push_back("Start " + Addr(pSwitch) + " " + std::to_string(moduleId));
    return 104;
  }
  int Stop() override {
    g_Calls.push_back("Stop");
    return 105;
  }
  void OnSwitchStarted(void* context) override {
    g_Calls.push_back("OnSwitchStarted " + Addr(context));
  }
  void ApplicationReply(SipJson& message) override {
    g_Calls.push_back("ApplicationReply " + Addr(&message));
  }
  int ModuleRequest(SipJson& request) override {
    g_Calls.push_back("ModuleRequest " + Addr(&request));
    return 108;
  }
  int GetServerCabinetNumber(unsigned int& number) override {
    g_Calls.push_back("GetServerCabinetNumber " + Addr(&number));
    return 109;
  }
  int SetServerCabinetNumber(unsigned int number) override {
    g_Calls.push_back("SetServerCabinetNumber " + std::to_string(number));
    return 110;
  }
  int GetServerSeList(unsigned int** list, unsigned char& count) override {
    g_Calls.push_back("GetServerSeList " + Addr(list) + " " + Addr(&count));
    return 111;
  }
  int SetServerSeList(unsigned int* list, unsigned char count) override {
    g_Calls.push_back("SetServerSeList " + Addr(list) + " " + std::to_string(count));
    return 112;
  }
  int Notify(unsigned int code, void* p1, void* p2) override {
    g_Calls.push_back("Notify " + std::to_string(code) + " " + Addr(p1) + " " + Addr(p2));
    return 113;
  }
  const char* GetName() override {
    g_Calls.push_back("GetName");
    return "slot 14";
  }
  void ModuleAttached(_ModuleId& id) override { g_Calls.push_back("ModuleAttached " + Addr(&id)); }
  void ModuleDetached(_ModuleId& id) override { g_Calls.push_back("ModuleDetached " + Addr(&id)); }
  void ClientAttached(unsigned int client) override {
    g_Calls.push_back("ClientAttached " + std::to_string(client));
  }
  void ClientDetached(unsigned int client) override {
    g_Calls.push_back("ClientDetached " + std::to_string(client));
  }
  int CommandToDevice(SipJson& message) override {
    g_Calls.push_back("CommandToDevice(SipJson) " + Addr(&message));
    return 119;
  }
  int CommandToDevice(unsigned int a, unsigned int b, unsigned int c, unsigned int d,
                      unsigned char* buffer, unsigned int length) override {
    g_Calls.push_back("CommandToDevice(raw) " + std::to_string(a) + " " + std::to_string(b) + " " +
                      std::to_string(c) + " " + std::to_string(d) + " " + Addr(buffer) + " " +
                      std::to_string(length));
    return 120;
  }
  int CommandToSe(SipJson& message, unsigned int a, unsigned int b) override {
    g_Calls.push_back("CommandToSe(SipJson) " + Addr(&message) + " " + std::to_string(a) + " " +
                      std::to_string(b));
    return 121;
  }
  int CommandToSe(unsigned int a, unsigned int b, unsigned int c, unsigned int d,
                  unsigned char* buffer, unsigned int length, unsigned int e,
                  unsigned int f) override {
    g_Calls.push_back("CommandToSe(raw) " + std::to_string(a) + " " + std::to_string(b) + " " +
                      std::to_string(c) + " " + std::to_string(d) + " " + Addr(buffer) + " " +
                      std::to_string(length) + " " + std::to_string(e) + " " + std::to_string(f));
    return 122;
  }
  int OnModuleNotification(unsigned int code, void* p1, void* p2) override {
    g_Calls.push_back("OnModuleNotification " + std::to_string(code) + " " + Addr(p1) + " " +
                      Addr(p2));
    return 123;
  }
};

// Calls slot `slot` of object's vtable the way the host does: through the
// raw Itanium table, with `this` as the first argument and references passed
// as pointers.
template <typename R, typename... A>
R CallSlot(CIExtensionModule* object, std::size_t slot, A... args) {
  void** vtable = *reinterpret_cast<void***>(object);
  auto function = reinterpret_cast<R (*)(CIExtensionModule*, A...)>(vtable[slot]);
  return function(object, args...);
}

// The one entry the last call logged.
std::string TakeCall() {
  std::string call =
      g_Calls.size() == 1 ? g_Calls.front() : "calls: " + std::to_string(g_Calls.size());
  g_Calls.clear();
  return call;
}

TEST(ExtensionModuleSlots, EverySlotLandsInItsOverride) {
  CSlotModule module;
  CIExtensionModule* const object = &module;
  g_Calls.clear();

  _ExtensionModuleProperties properties{};
  EXPECT_EQ((CallSlot<int, _ExtensionModuleProperties*>(object, 2, &properties)), 102);
  EXPECT_EQ(TakeCall(), "GetProperties " + Addr(&properties));
  EXPECT_EQ(CallSlot<int>(object, 3), 103);
  EXPECT_EQ(TakeCall(), "DetectHardware");
  CRecordingSwitch recordingSwitch;
  CISwitch* const switchPointer = &recordingSwitch;
  EXPECT_EQ((CallSlot<int, CISwitch*, unsigned int>(object, 4, switchPointer, 0x20005u)), 104);
  EXPECT_EQ(TakeCall(), "Start " + Addr(switchPointer) + " 131077");
  EXPECT_EQ(CallSlot<int>(object, 5), 105);
  EXPECT_EQ(TakeCall(), "Stop");
  int context = 0;
  CallSlot<void, void*>(object, 6, &context);
  EXPECT_EQ(TakeCall(), "OnSwitchStarted " + Addr(&context));
  SipJson message;
  CallSlot<void, SipJson*>(object, 7, &message);
  EXPECT_EQ(TakeCall(), "ApplicationReply " + Addr(&message));
  EXPECT_EQ((CallSlot<int, SipJson*>(object, 8, &message)), 108);
  EXPECT_EQ(TakeCall(), "ModuleRequest " + Addr(&message));
  unsigned int number = 0;
  EXPECT_EQ((CallSlot<int, unsigned int*>(object, 9, &number)), 109);
  EXPECT_EQ(TakeCall(), "GetServerCabinetNumber " + Addr(&number));
  EXPECT_EQ((CallSlot<int, unsigned int>(object, 10, 7u)), 110);
  EXPECT_EQ(TakeCall(), "SetServerCabinetNumber 7");
  unsigned int* list = nullptr;
  unsigned char count = 0;
  EXPECT_EQ((CallSlot<int, unsigned int**, unsigned char*>(object, 11, &list, &count)), 111);
  EXPECT_EQ(TakeCall(), "GetServerSeList " + Addr(&list) + " " + Addr(&count));
  unsigned int elements[2] = {1, 2};
  EXPECT_EQ((CallSlot<int, unsigned int*, unsigned char>(object, 12, elements, 2)), 112);
  EXPECT_EQ(TakeCall(), "SetServerSeList " + Addr(elements) + " 2");
  int p1 = 0;
  int p2 = 0;
  EXPECT_EQ((CallSlot<int, unsigned int, void*, void*>(object, 13, 0x20000u, &p1, &p2)), 113);
  EXPECT_EQ(TakeCall(), "Notify 131072 " + Addr(&p1) + " " + Addr(&p2));
  EXPECT_STREQ(CallSlot<const char*>(object, 14), "slot 14");
  EXPECT_EQ(TakeCall(), "GetName");
  _ModuleId id{5};
  CallSlot<void, _ModuleId*>(object, 15, &id);
  EXPECT_EQ(TakeCall(), "ModuleAttached " + Addr(&id));
  CallSlot<void, _ModuleId*>(object, 16, &id);
  EXPECT_EQ(TakeCall(), "ModuleDetached " + Addr(&id));
  CallSlot<void, unsigned int>(object, 17, 41u);
  EXPECT_EQ(TakeCall(), "ClientAttached 41");
  CallSlot<void, unsigned int>(object, 18, 42u);
  EXPECT_EQ(TakeCall(), "ClientDetached 42");
  EXPECT_EQ((CallSlot<int, SipJson*>(object, 19, &message)), 119);
  EXPECT_EQ(TakeCall(), "CommandToDevice(SipJson) " + Addr(&message));
  unsigned char buffer[4] = {};
  EXPECT_EQ((CallSlot<int, unsigned int, unsigned int, unsigned int, unsigned int, unsigned char*,
                      unsigned int>(object, 20, 1u, 2u, 3u, 4u, buffer, 4u)),
            120);
  EXPECT_EQ(TakeCall(), "CommandToDevice(raw) 1 2 3 4 " + Addr(buffer) + " 4");
  EXPECT_EQ((CallSlot<int, SipJson*, unsigned int, unsigned int>(object, 21, &message, 8u, 9u)),
            121);
  EXPECT_EQ(TakeCall(), "CommandToSe(SipJson) " + Addr(&message) + " 8 9");
  EXPECT_EQ((CallSlot<int, unsigned int, unsigned int, unsigned int, unsigned int, unsigned char*,
                      unsigned int, unsigned int, unsigned int>(object, 22, 1u, 2u, 3u, 4u, buffer,
                                                                4u, 7u, 8u)),
            122);
  EXPECT_EQ(TakeCall(), "CommandToSe(raw) 1 2 3 4 " + Addr(buffer) + " 4 7 8");
  EXPECT_EQ((CallSlot<int, unsigned int, void*, void*>(object, 23, 9u, &p2, &p1)), 123);
  EXPECT_EQ(TakeCall(), "OnModuleNotification 9 " + Addr(&p2) + " " + Addr(&p1));
}

TEST(ExtensionModuleSlots, SlotZeroDestroysAndSlotOneAlsoFrees) {
  alignas(CSlotModule) unsigned char storage[sizeof(CSlotModule)];
  CIExtensionModule* const placed = new (storage) CSlotModule;
  g_Calls.clear();
  CallSlot<void>(placed, 0);
  EXPECT_EQ(g_Calls, std::vector<std::string>{"~CSlotModule"});

  CIExtensionModule* const allocated = new CSlotModule;
  g_Calls.clear();
  CallSlot<void>(allocated, 1);
  EXPECT_EQ(g_Calls, (std::vector<std::string>{"~CSlotModule", "delete"}));
  g_Calls.clear();
}

TEST(ExtensionModuleSlots, BaseDefaultsSitInTheSameSlots) {
  CExtensionModule module;
  CIExtensionModule* const object = &module;
  _ExtensionModuleProperties properties{};
  EXPECT_EQ((CallSlot<int, _ExtensionModuleProperties*>(object, 2, &properties)), 0);
  EXPECT_EQ(CallSlot<int>(object, 3), 1);
  EXPECT_EQ(CallSlot<int>(object, 5), 1);
  EXPECT_STREQ(CallSlot<const char*>(object, 14), "EM_XXX");
  SipJson message;
  EXPECT_EQ((CallSlot<int, SipJson*>(object, 19, &message)), 0);
  EXPECT_EQ((CallSlot<int, unsigned int, void*, void*>(object, 23, 1u, nullptr, nullptr)), 0);
}

// ----- defaults ---------------------------------------------------------------

class ExtensionModuleTest : public korvex_test::MemoryTraceTest {};

const std::string kBaseColumn = "\nEM_XXX              : ";

TEST_F(ExtensionModuleTest, FieldsAreZeroAfterConstruction) {
  CExtensionModule module;
  EXPECT_EQ(module.m_pSwitch, nullptr);
  EXPECT_EQ(module.m_ModuleIndex, 0);
  EXPECT_EQ(module.m_ModuleLayer, 0);
  EXPECT_EQ(module.m_SwitchShutdown, 0u);
  EXPECT_STREQ(module.GetName(), "EM_XXX");
}

TEST_F(ExtensionModuleTest, DefaultsAnswerWithoutTouchingTheirArguments) {
  CExtensionModule module;
  _ExtensionModuleProperties properties;
  std::memset(&properties, 0xA5, sizeof(properties));
  _ExtensionModuleProperties before;
  std::memcpy(&before, &properties, sizeof(before));
  EXPECT_EQ(module.GetProperties(properties), 0);
  EXPECT_EQ(std::memcmp(&before, &properties, sizeof(properties)), 0) << "fills nothing";

  EXPECT_EQ(module.DetectHardware(), 1);
  EXPECT_EQ(module.Stop(), 1);

  unsigned int sentinel = 0;
  unsigned int* list = &sentinel;
  unsigned char count = 9;
  EXPECT_EQ(module.GetServerSeList(&list, count), 0);
  EXPECT_EQ(list, &sentinel);
  EXPECT_EQ(count, 9);
  EXPECT_EQ(module.SetServerSeList(&sentinel, 1), 0);

  SipJson message;
  const std::string text = R"({"SIP":{"V":1,"CMD":[{"OC":13312,"DA":"x"}]}})";
  ASSERT_TRUE(message.FromJson(text.data(), text.size()));
  unsigned char buffer[3] = {1, 2, 3};
  EXPECT_EQ(module.CommandToDevice(message), 0);
  EXPECT_EQ(module.CommandToDevice(1, 2, 3, 4, buffer, 3), 0);
  EXPECT_EQ(module.CommandToSe(message, 1, 2), 0);
  EXPECT_EQ(module.CommandToSe(1, 2, 3, 4, buffer, 3, 5, 6), 0);
  EXPECT_EQ(module.OnModuleNotification(0x20000, nullptr, nullptr), 0);
  module.OnSwitchStarted(nullptr);
  module.ApplicationReply(message);
  _ModuleId id{7};
  module.ModuleAttached(id);
  module.ModuleDetached(id);
  module.ClientAttached(1);
  module.ClientDetached(1);
  EXPECT_EQ(message.ToJson(), text);
  EXPECT_EQ(buffer[0], 1);
  EXPECT_EQ(buffer[2], 3);
  EXPECT_EQ(id.m_Id, 7u);
  EXPECT_EQ(module.m_SwitchShutdown, 0u) << "OnModuleNotification alone sets no flag";
  EXPECT_EQ(halvane::TakeTrace(), "");
}

// ----- Start ------------------------------------------------------------------

std::string SourceTrace(const std::string& column, const std::string& source) {
  return column + "Register event log source \"" + source + "\" ..." + column +
         "... event log source \"" + source + "\" registered";
}

TEST_F(ExtensionModuleTest, StartWithoutSwitchSplitsTheIdAndFallsBackToServerControl) {
  CExtensionModule module;
  EXPECT_EQ(module.Start(nullptr, 0x20005), 1);
  EXPECT_EQ(module.m_pSwitch, nullptr);
  EXPECT_EQ(module.m_ModuleLayer, 2);
  EXPECT_EQ(module.m_ModuleIndex, 5);
  EXPECT_EQ(halvane::TakeTrace(), SourceTrace(kBaseColumn, "Halvane Server Control"));
}

TEST_F(ExtensionModuleTest, StartTracesAtLevelFour) {
  CExtensionModule module;
  halvane::SetTraceLevel(3);
  EXPECT_EQ(module.Start(nullptr, 1), 1);
  EXPECT_EQ(halvane::TakeTrace(), "");
  halvane::SetTraceLevel(4);
  EXPECT_EQ(module.Start(nullptr, 1), 1);
  EXPECT_EQ(halvane::TakeTrace(), SourceTrace(kBaseColumn, "Halvane Server Control"));
}

TEST_F(ExtensionModuleTest, ServiceTypeFiveIsTheAgentlessService) {
  CExtensionModule module;
  CRecordingSwitch recordingSwitch;
  recordingSwitch.SetServiceType(5);
  EXPECT_EQ(module.Start(&recordingSwitch, 0xFFFFFFFFu), 1);
  EXPECT_EQ(module.m_pSwitch, &recordingSwitch);
  EXPECT_EQ(module.m_ModuleLayer, 0xFFFF);
  EXPECT_EQ(module.m_ModuleIndex, 0xFFFF);
  EXPECT_EQ(halvane::TakeTrace(), SourceTrace(kBaseColumn, "Halvane Agentless Service"));
  // Once for the first line, once for the registration, once for the second line.
  EXPECT_EQ(recordingSwitch.ServiceTypeQueries(), 3u);
}

TEST_F(ExtensionModuleTest, AnyOtherServiceTypeIsServerControl) {
  for (unsigned int type : {0u, 4u, 6u, 0xFFFFFFFFu}) {
    CExtensionModule module;
    CRecordingSwitch recordingSwitch;
    recordingSwitch.SetServiceType(type);
    EXPECT_EQ(module.Start(&recordingSwitch, 0x10002), 1);
    EXPECT_EQ(module.m_ModuleLayer, 1);
    EXPECT_EQ(module.m_ModuleIndex, 2);
    EXPECT_EQ(halvane::TakeTrace(), SourceTrace(kBaseColumn, "Halvane Server Control")) << type;
  }
}

class CNamedModule : public CExtensionModule {
 public:
  const char* GetName() override {
    ++m_NameCalls;
    return "EM_KORVEX";
  }
  int m_NameCalls = 0;
};

TEST_F(ExtensionModuleTest, StartShowsTheDerivedNameInItsColumn) {
  CNamedModule module;
  CRecordingSwitch recordingSwitch;
  EXPECT_EQ(module.Start(&recordingSwitch, 0x20005), 1);
  EXPECT_EQ(halvane::TakeTrace(),
            SourceTrace("\nEM_KORVEX           : ", "Halvane Agentless Service"));
  EXPECT_EQ(module.m_NameCalls, 3);
}

TEST_F(ExtensionModuleTest, StartAgainReplacesSwitchAndId) {
  CExtensionModule module;
  CRecordingSwitch recordingSwitch;
  module.Start(&recordingSwitch, 0x30004);
  module.Start(nullptr, 0x20005);
  EXPECT_EQ(module.m_pSwitch, nullptr);
  EXPECT_EQ(module.m_ModuleLayer, 2);
  EXPECT_EQ(module.m_ModuleIndex, 5);
}

// ----- Notify -----------------------------------------------------------------

class CNotifiedModule : public CExtensionModule {
 public:
  int OnModuleNotification(unsigned int code, void* p1, void* p2) override {
    m_Codes.push_back(code);
    m_P1 = p1;
    m_P2 = p2;
    m_FlagSeen = m_SwitchShutdown;
    return 77;
  }
  std::vector<unsigned int> m_Codes;
  void* m_P1 = nullptr;
  void* m_P2 = nullptr;
  unsigned int m_FlagSeen = 0;
};

TEST_F(ExtensionModuleTest, ShutdownNoticeSetsTheFlagAndIsStillForwarded) {
  CNotifiedModule module;
  int a = 0;
  int b = 0;
  EXPECT_EQ(module.Notify(0x20000, &a, &b), 77);
  EXPECT_EQ(module.m_SwitchShutdown, 1u);
  EXPECT_EQ(module.m_Codes, std::vector<unsigned int>{0x20000});
  EXPECT_EQ(module.m_P1, &a);
  EXPECT_EQ(module.m_P2, &b);
  EXPECT_EQ(module.m_FlagSeen, 1u) << "the flag is set before the notification is forwarded";

  // Other codes never reset it.
  EXPECT_EQ(module.Notify(0, nullptr, nullptr), 77);
  EXPECT_EQ(module.m_SwitchShutdown, 1u);
  EXPECT_EQ(module.Notify(0x20000, nullptr, nullptr), 77);
  EXPECT_EQ(module.m_SwitchShutdown, 1u);
  EXPECT_EQ(module.m_Codes, (std::vector<unsigned int>{0x20000, 0, 0x20000}));
}

TEST_F(ExtensionModuleTest, OtherCodesLeaveTheFlagAlone) {
  CNotifiedModule module;
  for (unsigned int code : {0u, 1u, 0x1FFFFu, 0x20001u, 0x30000u, 0x10000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(module.Notify(code, nullptr, &module), 77);
    EXPECT_EQ(module.m_SwitchShutdown, 0u) << code;
  }
  EXPECT_EQ(module.m_Codes.size(), 7u);
  EXPECT_EQ(module.m_P2, &module);
}

TEST_F(ExtensionModuleTest, BaseNotifyReturnsTheDefaultZero) {
  CExtensionModule module;
  EXPECT_EQ(module.Notify(0x20000, nullptr, nullptr), 0);
  EXPECT_EQ(module.m_SwitchShutdown, 1u);
  EXPECT_EQ(halvane::TakeTrace(), "");
}

// ----- cabinet number ---------------------------------------------------------

TEST_F(ExtensionModuleTest, CabinetNumberIsStoredButNotReportedBack) {
  CExtensionModule module;
  EXPECT_EQ(module.SetServerCabinetNumber(3), 1);
  EXPECT_EQ(CExtensionModule::ServerCabinetNr, 3u);
  EXPECT_EQ(CExtensionModule::m_ServerCabinetNrValid, 1u);
  EXPECT_EQ(halvane::TakeTrace(), "\n" + kBaseColumn + "## Server cabinet number = 3 ##\n");

  unsigned int number = 77;
  EXPECT_EQ(module.GetServerCabinetNumber(number), 0);
  EXPECT_EQ(number, 77u) << "the argument keeps its previous value";
}

TEST_F(ExtensionModuleTest, CabinetNumberIsSharedByAllModulesAndTracedAtLevelTwo) {
  CExtensionModule first;
  CNamedModule second;
  halvane::SetTraceLevel(1);
  EXPECT_EQ(first.SetServerCabinetNumber(11), 1);
  EXPECT_EQ(halvane::TakeTrace(), "");
  halvane::SetTraceLevel(2);
  EXPECT_EQ(second.SetServerCabinetNumber(0xFFFFFFFFu), 1);
  EXPECT_EQ(halvane::TakeTrace(), "\n\nEM_KORVEX           : ## Server cabinet number = -1 ##\n");
  EXPECT_EQ(CExtensionModule::ServerCabinetNr, 0xFFFFFFFFu);
  CExtensionModule third;
  unsigned int number = 5;
  EXPECT_EQ(third.GetServerCabinetNumber(number), 0);
  EXPECT_EQ(number, 5u);
  EXPECT_EQ(CExtensionModule::ServerCabinetNr, 0xFFFFFFFFu) << "a new module does not reset it";
}

// ----- base ModuleRequest -----------------------------------------------------

SipJson FromText(const std::string& text) {
  SipJson message;
  EXPECT_TRUE(message.FromJson(text.data(), text.size())) << text;
  return message;
}

TEST_F(ExtensionModuleTest, BaseModuleRequestAddsStatusOne) {
  CExtensionModule module;
  SipJson message = FromText(R"({"SIP":{"V":1,"CMD":[{"OC":13312,"OE":0}]}})");
  EXPECT_EQ(module.ModuleRequest(message), 0);
  EXPECT_EQ(message.ToJson(), R"({"SIP":{"V":1,"CMD":[{"OC":13312,"OE":0,"ST":1}]}})");
  EXPECT_EQ(halvane::TakeTrace(), "");
}

TEST_F(ExtensionModuleTest, BaseModuleRequestOverwritesStatusInPlace) {
  CExtensionModule module;
  SipJson message = FromText(R"({"SIP":{"V":1,"CMD":[{"OC":13313,"ST":22,"CA":3}]}})");
  EXPECT_EQ(module.ModuleRequest(message), 0);
  EXPECT_EQ(message.ToJson(), R"({"SIP":{"V":1,"CMD":[{"OC":13313,"ST":1,"CA":3}]}})");
}

TEST_F(ExtensionModuleTest, BaseModuleRequestPadsLikeTheStatusSetter) {
  CExtensionModule module;
  SipJson empty;
  EXPECT_EQ(module.ModuleRequest(empty), 0);
  EXPECT_EQ(empty.ToJson(), R"({"SIP":{"V":1,"CMD":[{"ST":1}]}})");

  SipJson beyond;
  beyond.m_CmdIndex = 2;
  EXPECT_EQ(module.ModuleRequest(beyond), 0);
  EXPECT_EQ(beyond.ToJson(), R"({"SIP":{"V":1,"CMD":[{},null,null]}})");
  EXPECT_EQ(beyond.Status(), 22u);
}

TEST_F(ExtensionModuleTest, BaseModuleRequestWritesNothingIntoANonObjectCommand) {
  CExtensionModule module;
  const std::string text = R"({"SIP":{"V":1,"CMD":[5]}})";
  SipJson message = FromText(text);
  EXPECT_EQ(module.ModuleRequest(message), 0);
  EXPECT_EQ(message.ToJson(), text);
}

}  // namespace
