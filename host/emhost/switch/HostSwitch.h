// The message switch of em-host (CISwitch): it delivers requests to the one
// loaded module, routes the module's own requests (AsyncRequest) to the
// handler registered for their opcode (RequestHandler.h), and hands
// asynchronous answers (SendReply) back to whoever sent the request.
//
// The switch owns no handler and knows none by kind: em-host's command line
// and serve session register the BMC stand-in (or a fake in its place) for
// the file transfer's opcode. A request whose opcode has no handler comes
// back as it went out, result 0, as it would from a host without the module
// that serves it.
//
// Matching an answer to its request: the switch tags each request it
// delivers with a text "em-host:<n>" in the message's m_pszExtra string.
// The module's queue copy duplicates that string, so the message that comes
// back through SendReply still carries the tag.
#pragma once

#include "frame/HostServices.h"
#include "host/emhost/switch/RequestHandler.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

class CIExtensionModule;
class SipJson;

// What the switch reports to its owner. Called on the thread of the event
// (the module's worker for replies and routed requests), one call at a time.
class CISwitchListener {
 public:
  virtual ~CISwitchListener() = default;
  // An answer came back. tag is the number of the request it answers, or 0
  // when the message carries no tag of this switch.
  virtual void OnReply(std::uint64_t tag, SipJson& message) = 0;
  // A module's request reached the handler registered for opcode, before
  // the handler acts on it.
  virtual void OnRouted(unsigned int /*opcode*/, SipJson& /*request*/) {}
};

class CHostSwitch : public CISwitch {
 public:
  explicit CHostSwitch(unsigned int serviceType) : m_ServiceType(serviceType) {}
  CHostSwitch(const CHostSwitch&) = delete;
  CHostSwitch& operator=(const CHostSwitch&) = delete;

  void SetListener(CISwitchListener* listener);
  // Routes opcode's requests to handler (replacing an earlier one; nullptr:
  // none). The handler is not owned and must outlive its registration.
  void Register(unsigned int opcode, CIRequestHandler* handler);

  // Tags request with tag and calls the module's ModuleRequest; returns its
  // result. Exceptions from the module pass on to the caller.
  int Deliver(CIExtensionModule& module, SipJson& request, std::uint64_t tag);

  // The tag carried by a message, 0 when none of ours.
  static std::uint64_t TagOf(const SipJson& message);

  unsigned int GetServiceType() override;
  int AsyncRequest(CIExtensionModule* sender, SipJson& request, unsigned int timeout) override;
  int SendReply(CIExtensionModule* sender, SipJson& message) override;

  // Before the module is stopped: every handler ends its work in flight
  // and refuses new work (CIRequestHandler::Stop), so that a request the
  // module's worker waits for returns at once.
  void StopHandlers();
  // Before the module is started again.
  void AllowHandlers();

 private:
  CIRequestHandler* HandlerFor(unsigned int opcode);
  // Each registered handler once.
  std::vector<CIRequestHandler*> Handlers();

  const unsigned int m_ServiceType;

  std::mutex m_ListenerMutex;  // one listener call at a time
  CISwitchListener* m_pListener = nullptr;

  std::mutex m_HandlersMutex;
  std::map<unsigned int, CIRequestHandler*> m_Handlers;
};
