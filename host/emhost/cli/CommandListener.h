// What a command hears from the switch: the replies to its requests by
// tag, with a wake-up for the waiting main thread, and what the BMC
// stand-in said about its last copy (its message, and the digest of the
// file it stored). The one place em-host's commands read the file
// transfer's results.
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
  void OnTransfer(SipJson& /*request*/) override {}
  void OnTransferDone(const CBmcTransferJob& job) override;

  // The reply to tag, once; false while none came.
  bool TakeReply(std::uint64_t tag, CReply& out);
  // What the file transfer said about its last answer ("" when nothing).
  std::string TransferMessage();
  // The digest recorded for path by the last verified copy, if any.
  std::string StoredSha256(const std::string& path);

  // Readable after a reply came; Drain() before looking again.
  int WakeFd() const { return m_Replied.Fd(); }
  void Drain() { m_Replied.Drain(); }

 private:
  korvex::CWakeEvent m_Replied;
  std::mutex m_Mutex;
  std::map<std::uint64_t, CReply> m_Replies;
  std::string m_StoredPath;
  std::string m_StoredSha256;
  std::string m_TransferMessage;
};
