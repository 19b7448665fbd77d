// What em-host's switch routes a module's own request (AsyncRequest) to: one
// handler per opcode, registered with CHostSwitch::Register. The switch
// knows nothing of what a handler does; the BMC stand-in and the fakes that
// answer in its place (bmc/HtiHandlers.h) are such handlers, and a test may
// register one of its own.
#pragma once

class SipJson;

class CIRequestHandler {
 public:
  virtual ~CIRequestHandler() = default;

  // Serves request on the sender's thread, the way AsyncRequest answers:
  // 1 with the answer's status written into the request's current command,
  // or 0 to send the request back as it came (no status: the sender then
  // reads the one it had). timeoutMs is the sender's time-out argument
  // (CEvent::kInfinite: none); how it bounds the wait is the handler's
  // business, since only the handler knows its request's own time limit.
  virtual int Serve(SipJson& request, unsigned int timeoutMs) = 0;

  // Before the module is stopped: ends the work in flight (a Serve waiting
  // for it returns at once, without a status) and refuses new work until
  // Allow. Returns once nothing of the ended work is left behind.
  virtual void Stop() {}
  // Before the module is started again.
  virtual void Allow() {}
};
