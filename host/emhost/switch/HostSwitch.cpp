// em-host's switch: request delivery with reply tags, the routing of a
// module's requests to the handler registered for their opcode, and the
// hand-back of answers.
#include "host/emhost/switch/HostSwitch.h"

#include "frame/ExtensionModule.h"
#include "message/SipJson.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

namespace {

constexpr char kTagPrefix[] = "em-host:";

}  // namespace

void CHostSwitch::SetListener(CISwitchListener* listener) {
  std::lock_guard<std::mutex> lock(m_ListenerMutex);
  m_pListener = listener;
}

void CHostSwitch::Register(unsigned int opcode, CIRequestHandler* handler) {
  std::lock_guard<std::mutex> lock(m_HandlersMutex);
  if (handler == nullptr) {
    m_Handlers.erase(opcode);
  } else {
    m_Handlers[opcode] = handler;
  }
}

CIRequestHandler* CHostSwitch::HandlerFor(unsigned int opcode) {
  std::lock_guard<std::mutex> lock(m_HandlersMutex);
  const auto found = m_Handlers.find(opcode);
  return found != m_Handlers.end() ? found->second : nullptr;
}

std::vector<CIRequestHandler*> CHostSwitch::Handlers() {
  std::vector<CIRequestHandler*> handlers;
  std::lock_guard<std::mutex> lock(m_HandlersMutex);
  for (const auto& entry : m_Handlers) {
    if (std::find(handlers.begin(), handlers.end(), entry.second) == handlers.end()) {
      handlers.push_back(entry.second);
    }
  }
  return handlers;
}

void CHostSwitch::StopHandlers() {
  for (CIRequestHandler* handler : Handlers()) handler->Stop();
}

void CHostSwitch::AllowHandlers() {
  for (CIRequestHandler* handler : Handlers()) handler->Allow();
}

int CHostSwitch::Deliver(CIExtensionModule& module, SipJson& request, std::uint64_t tag) {
  const std::string text = kTagPrefix + std::to_string(tag);
  // The message frees m_pszExtra with free(); strdup allocates with malloc.
  char* copy = ::strdup(text.c_str());
  if (copy == nullptr) throw std::bad_alloc();
  std::free(request.m_pszExtra);
  request.m_pszExtra = copy;
  return module.ModuleRequest(request);
}

std::uint64_t CHostSwitch::TagOf(const SipJson& message) {
  const char* extra = message.m_pszExtra;
  const std::size_t prefix = sizeof(kTagPrefix) - 1;
  if (extra == nullptr || std::strncmp(extra, kTagPrefix, prefix) != 0) return 0;
  const char* digits = extra + prefix;
  if (*digits < '0' || *digits > '9') return 0;
  char* end = nullptr;
  const unsigned long long tag = std::strtoull(digits, &end, 10);
  return *end == '\0' ? tag : 0;
}

unsigned int CHostSwitch::GetServiceType() { return m_ServiceType; }

int CHostSwitch::AsyncRequest(CIExtensionModule* /*sender*/, SipJson& request,
                              unsigned int timeout) {
  const unsigned int opcode = request.OpCode();
  CIRequestHandler* handler = HandlerFor(opcode);
  // No module serves this opcode: the request comes back as it went out.
  if (handler == nullptr) return 0;
  {
    std::lock_guard<std::mutex> lock(m_ListenerMutex);
    if (m_pListener != nullptr) m_pListener->OnRouted(opcode, request);
  }
  return handler->Serve(request, timeout);
}

int CHostSwitch::SendReply(CIExtensionModule* /*sender*/, SipJson& message) {
  const std::uint64_t tag = TagOf(message);
  std::lock_guard<std::mutex> lock(m_ListenerMutex);
  if (m_pListener != nullptr) m_pListener->OnReply(tag, message);
  return tag != 0 ? 1 : 0;
}
