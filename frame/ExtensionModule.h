// The host's module interface (CIExtensionModule, fixed virtual slot order)
// and the base class every module derives from (CExtensionModule: harmless
// defaults, identity, process-wide cabinet number, message trace).
#pragma once

#include <cstddef>

#include "frame/HostServices.h"

class SipJson;

// Properties record owned by the host and filled by GetProperties. Laid out
// byte by byte without gaps; bytes the module does not own keep the host's values.
#pragma pack(push, 1)
struct _ExtensionModuleProperties {
  unsigned int m_RecordSize;        // 0: set by the host, at least 246
  unsigned char m_Host0[4];         // 4
  unsigned char m_FlagsA;           // 8: module sets bits 0 and 1
  unsigned char m_Host1[12];        // 9
  unsigned char m_FlagsB;           // 21: module clears bits 0 and 1
  unsigned char m_Host2[20];        // 22
  unsigned int m_PropertiesKind;    // 42: 2
  char m_ModuleName[100];           // 46
  char m_ModuleDescription[100];    // 146
};
#pragma pack(pop)

static_assert(offsetof(_ExtensionModuleProperties, m_RecordSize) == 0);
static_assert(offsetof(_ExtensionModuleProperties, m_FlagsA) == 8);
static_assert(offsetof(_ExtensionModuleProperties, m_FlagsB) == 21);
static_assert(offsetof(_ExtensionModuleProperties, m_PropertiesKind) == 42);
static_assert(offsetof(_ExtensionModuleProperties, m_ModuleName) == 46);
static_assert(offsetof(_ExtensionModuleProperties, m_ModuleDescription) == 146);
static_assert(sizeof(_ExtensionModuleProperties) == 246);

// Identity of a module as the host announces it; modules do not read it.
struct _ModuleId {
  unsigned int m_Id;
};

// The host's system-log object, shared by all modules of the library.
class CScSysLog {
 public:
  CScSysLog() = default;
  ~CScSysLog() {}
};

class CIExtensionModule {
 public:
  virtual ~CIExtensionModule() = default;

  virtual int GetProperties(_ExtensionModuleProperties& properties) = 0;  // 1
  virtual int DetectHardware() = 0;                                       // 2
  virtual int Start(CISwitch* pSwitch, unsigned int moduleId) = 0;        // 3
  virtual int Stop() = 0;                                                 // 4
  virtual void OnSwitchStarted(void* context) = 0;                        // 5
  virtual void ApplicationReply(SipJson& message) = 0;                    // 6
  virtual int ModuleRequest(SipJson& request) = 0;                        // 7
  virtual int GetServerCabinetNumber(unsigned int& number) = 0;           // 8
  virtual int SetServerCabinetNumber(unsigned int number) = 0;            // 9
  virtual int GetServerSeList(unsigned int** list, unsigned char& count) = 0;  // 10
  virtual int SetServerSeList(unsigned int* list, unsigned char count) = 0;    // 11
  virtual int Notify(unsigned int code, void* p1, void* p2) = 0;          // 12
  virtual const char* GetName() = 0;                                      // 13
  virtual void ModuleAttached(_ModuleId& id) = 0;                         // 14
  virtual void ModuleDetached(_ModuleId& id) = 0;                         // 15
  virtual void ClientAttached(unsigned int client) = 0;                   // 16
  virtual void ClientDetached(unsigned int client) = 0;                   // 17
};

// Notification code by which the switch announces its shutdown.
constexpr unsigned int NOTIFY_SWITCH_SHUTDOWN = 0x20000u;

class CExtensionModule : public CIExtensionModule {
 public:
  CExtensionModule();
  ~CExtensionModule() override;

  int GetProperties(_ExtensionModuleProperties& properties) override;
  int DetectHardware() override;
  int Start(CISwitch* pSwitch, unsigned int moduleId) override;
  int Stop() override;
  void OnSwitchStarted(void* context) override;
  void ApplicationReply(SipJson& message) override;
  int ModuleRequest(SipJson& request) override;
  int GetServerCabinetNumber(unsigned int& number) override;
  int SetServerCabinetNumber(unsigned int number) override;
  int GetServerSeList(unsigned int** list, unsigned char& count) override;
  int SetServerSeList(unsigned int* list, unsigned char count) override;
  int Notify(unsigned int code, void* p1, void* p2) override;
  const char* GetName() override;
  void ModuleAttached(_ModuleId& id) override;
  void ModuleDetached(_ModuleId& id) override;
  void ClientAttached(unsigned int client) override;
  void ClientDetached(unsigned int client) override;

  virtual int CommandToDevice(SipJson& message);                                   // 18
  virtual int CommandToDevice(unsigned int a, unsigned int b, unsigned int c, unsigned int d,
                              unsigned char* buffer, unsigned int length);         // 19
  virtual int CommandToSe(SipJson& message, unsigned int a, unsigned int b);       // 20
  virtual int CommandToSe(unsigned int a, unsigned int b, unsigned int c, unsigned int d,
                          unsigned char* buffer, unsigned int length, unsigned int e,
                          unsigned int f);                                         // 21
  virtual int OnModuleNotification(unsigned int code, void* p1, void* p2);        // 22

  // One trace line summarising a message (label, opcode, ids, status, data).
  static void TraceSip(int level, const char* label, const SipJson& message);

  // Instance fields, in this order; all zero after construction.
  CISwitch* m_pSwitch;
  unsigned short m_ModuleIndex;
  unsigned short m_ModuleLayer;
  unsigned int m_SwitchShutdown;  // 1 once NOTIFY_SWITCH_SHUTDOWN arrived; read without a lock

  // Shared by all modules of the library, for its whole life.
  static unsigned int ServerCabinetNr;
  static unsigned char ServerSeGroup;
  static unsigned int m_ServerCabinetNrValid;
  static CScSysLog SysLog;

 protected:
  // The event-log source this module reports under, by the host's service type.
  const char* EventLogSourceName();
};
