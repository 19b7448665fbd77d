// What a command hears from the switch: the replies to its requests by
// tag, with a wake-up for the waiting main thread. (What the BMC stand-in
// said about its last copy comes from the stand-in itself, CHtiStandIn.)
#pragma once

#include "host/emhost/switch/HostSwitch.h"
#include "module/Protocol.h"
#include "util/Waiter.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

struct CReply {
  unsigned int m_Status = korvex::kStatusQueued;
};

class CCommandListener : public CISwitchListener {
 public:
  void OnReply(std::uint64_t tag, SipJson& message) override;

  // The reply to tag, once; false while none came.
  bool TakeReply(std::uint64_t tag, CReply& out);

  // Readable after a reply came; Drain() before looking again.
  int WakeFd() const { return m_Replied.Fd(); }
  void Drain() { m_Replied.Drain(); }

 private:
  korvex::CWakeEvent m_Replied;
  std::mutex m_Mutex;
  std::map<std::uint64_t, CReply> m_Replies;
};
