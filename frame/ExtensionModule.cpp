// CExtensionModule: the defaults every module inherits, its identity, the
// switch-shutdown flag and the state shared by all modules of the library
// (server cabinet number, system log). The message trace is in TraceSip.cpp.
#include "frame/ExtensionModule.h"

#include "frame/Trace.h"
#include "message/SipJson.h"

namespace {

const char* const kAgentlessService = "Halvane Agentless Service";
const char* const kServerControl = "Halvane Server Control";
constexpr unsigned int kAgentlessServiceType = 5;

}  // namespace

unsigned int CExtensionModule::ServerCabinetNr = 0;
unsigned char CExtensionModule::ServerSeGroup = 0;
unsigned int CExtensionModule::m_ServerCabinetNrValid = 0;
CScSysLog CExtensionModule::SysLog;

CExtensionModule::CExtensionModule()
    : m_pSwitch(nullptr), m_ModuleIndex(0), m_ModuleLayer(0), m_SwitchShutdown(0) {}

CExtensionModule::~CExtensionModule() = default;

int CExtensionModule::GetProperties(_ExtensionModuleProperties& /*properties*/) { return 0; }

int CExtensionModule::DetectHardware() { return 1; }

const char* CExtensionModule::EventLogSourceName() {
  if (m_pSwitch != nullptr && m_pSwitch->GetServiceType() == kAgentlessServiceType) {
    return kAgentlessService;
  }
  return kServerControl;
}

int CExtensionModule::Start(CISwitch* pSwitch, unsigned int moduleId) {
  m_pSwitch = pSwitch;
  m_ModuleLayer = static_cast<unsigned short>(moduleId >> 16);
  m_ModuleIndex = static_cast<unsigned short>(moduleId & 0xFFFFu);

  const char* const source = EventLogSourceName();
  KORVEX_TRACE(4, "\n%-20s: Register event log source \"%s\" ...", GetName(), source);

  // Registering the source asks for the name and the service type once more;
  // the host's event log keeps nothing of it in this library.
  static_cast<void>(GetName());
  if (m_pSwitch != nullptr) static_cast<void>(m_pSwitch->GetServiceType());

  // The source name is asked for afresh: the host may have answered the
  // service type differently in the meantime, and the line must show what
  // was registered last.
  KORVEX_TRACE(4, "\n%-20s: ... event log source \"%s\" registered", GetName(),
               EventLogSourceName());
  return 1;
}

int CExtensionModule::Stop() { return 1; }

void CExtensionModule::OnSwitchStarted(void* /*context*/) {}

void CExtensionModule::ApplicationReply(SipJson& /*message*/) {}

int CExtensionModule::ModuleRequest(SipJson& request) {
  // A module that answers no request says so with status 1 ("taken, not
  // handled"), written exactly as the message's own status setter writes it.
  request.SetStatus(1);
  return 0;
}

int CExtensionModule::GetServerCabinetNumber(unsigned int& /*number*/) {
  // The host's modules have never reported the number back through this
  // call: the argument stays as the caller left it. Callers that need the
  // number read ServerCabinetNr.
  return 0;
}

int CExtensionModule::SetServerCabinetNumber(unsigned int number) {
  ServerCabinetNr = number;
  m_ServerCabinetNrValid = 1;
  KORVEX_TRACE(2, "\n\n%-20s: ## Server cabinet number = %d ##\n", GetName(),
               static_cast<int>(number));
  return 1;
}

int CExtensionModule::GetServerSeList(unsigned int** /*list*/, unsigned char& /*count*/) {
  return 0;
}

int CExtensionModule::SetServerSeList(unsigned int* /*list*/, unsigned char /*count*/) { return 0; }

int CExtensionModule::Notify(unsigned int code, void* p1, void* p2) {
  if (code == NOTIFY_SWITCH_SHUTDOWN) {
    // Written on the switch's thread while a task on the worker thread may be
    // reading it; the flag only ever goes from 0 to 1.
    __atomic_store_n(&m_SwitchShutdown, 1u, __ATOMIC_RELEASE);
  }
  return OnModuleNotification(code, p1, p2);
}

const char* CExtensionModule::GetName() { return "EM_XXX"; }

void CExtensionModule::ModuleAttached(_ModuleId& /*id*/) {}

void CExtensionModule::ModuleDetached(_ModuleId& /*id*/) {}

void CExtensionModule::ClientAttached(unsigned int /*client*/) {}

void CExtensionModule::ClientDetached(unsigned int /*client*/) {}

int CExtensionModule::CommandToDevice(SipJson& /*message*/) { return 0; }

int CExtensionModule::CommandToDevice(unsigned int /*a*/, unsigned int /*b*/, unsigned int /*c*/,
                                      unsigned int /*d*/, unsigned char* /*buffer*/,
                                      unsigned int /*length*/) {
  return 0;
}

int CExtensionModule::CommandToSe(SipJson& /*message*/, unsigned int /*a*/, unsigned int /*b*/) {
  return 0;
}

int CExtensionModule::CommandToSe(unsigned int /*a*/, unsigned int /*b*/, unsigned int /*c*/,
                                  unsigned int /*d*/, unsigned char* /*buffer*/,
                                  unsigned int /*length*/, unsigned int /*e*/, unsigned int /*f*/) {
  return 0;
}

int CExtensionModule::OnModuleNotification(unsigned int /*code*/, void* /*p1*/, void* /*p2*/) {
  return 0;
}
