// The message switch of em-host (CISwitch): it delivers requests to the one
// loaded module, routes the module's own requests (AsyncRequest) to the
// module that serves their opcode - here only the stand-in BMC file
// transfer, opcode 0xF052 - and hands asynchronous answers (SendReply) back
// to whoever sent the request.
//
// How long the switch waits for the file transfer: the module passes 5000
// (milliseconds) to AsyncRequest, but a file of gigabytes needs longer. The
// switch reads that argument as the least it waits, and the request's own
// "TO" (seconds) as the time the transfer is allowed: it waits
// max(argument, "TO" + kTransferAnswerGraceMs). The stand-in stops its copy
// when "TO" runs out and answers 11; the grace lets that answer through
// when a write stalls on its way.
//
// Matching an answer to its request: the switch tags each request it
// delivers with a text "em-host:<n>" in the message's m_pszExtra string.
// The module's queue copy duplicates that string, so the message that comes
// back through SendReply still carries the tag.
#pragma once

#include "frame/HostServices.h"
#include "host/emhost/bmc/BmcFileTransfer.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class CIExtensionModule;
class SipJson;

// How the 0xF052 requests are served (option --hti).
struct CHtiMode {
  enum Kind { kCopy, kStatus, kSilent, kAbsent };
  Kind m_Kind = kCopy;
  unsigned int m_Status = 0;  // kStatus: the status answered

  // "status:N", "silent", "absent" (and "copy", the default); false when
  // the text is none of them.
  static bool Parse(const std::string& text, CHtiMode& out);
};

// What the switch reports to its owner. Called on the thread of the event
// (the module's worker for replies and transfers), one call at a time.
class CISwitchListener {
 public:
  virtual ~CISwitchListener() = default;
  // An answer came back. tag is the number of the request it answers, or 0
  // when the message carries no tag of this switch.
  virtual void OnReply(std::uint64_t tag, SipJson& message) = 0;
  // A 0xF052 request reached the file-transfer module (before it acts).
  virtual void OnTransfer(SipJson& request) = 0;
  // A copy into the BMC directory finished in time (status 0 or not).
  virtual void OnTransferDone(const CBmcTransferJob& /*job*/) {}
};

constexpr unsigned int kTransferAnswerGraceMs = 5000;

// What a waiting command shows of the copy under way.
struct CTransferProgress {
  std::uint64_t m_Copied = 0;
  std::uint64_t m_Total = 0;
};

class CHostSwitch : public CISwitch {
 public:
  // bmcDir is opened here, once (see CBmcFileTransfer); copy shapes the
  // copies (production defaults).
  CHostSwitch(unsigned int serviceType, CHtiMode hti, std::string bmcDir,
              CCopySettings copy = CCopySettings{});
  ~CHostSwitch() override;  // stops copies still running (StopTransfers)
  CHostSwitch(const CHostSwitch&) = delete;
  CHostSwitch& operator=(const CHostSwitch&) = delete;

  void SetListener(CISwitchListener* listener);

  // Tags request with tag and calls the module's ModuleRequest; returns its
  // result. Exceptions from the module pass on to the caller.
  int Deliver(CIExtensionModule& module, SipJson& request, std::uint64_t tag);

  // The tag carried by a message, 0 when none of ours.
  static std::uint64_t TagOf(const SipJson& message);

  unsigned int GetServiceType() override;
  int AsyncRequest(CIExtensionModule* sender, SipJson& request, unsigned int timeout) override;
  int SendReply(CIExtensionModule* sender, SipJson& message) override;

  CBmcFileTransfer& FileTransfer() { return m_FileTransfer; }

  // Before the module is stopped: cancels every copy in flight and waits
  // until each has removed its temporary files, and refuses new copies
  // until AllowTransfers. A waiting AsyncRequest returns at once without a
  // status. A cancelled copy never appears.
  void StopTransfers();
  // Before the module is started again.
  void AllowTransfers();
  // The copy under way, if any.
  bool TransferProgress(CTransferProgress& out);

  // How long AsyncRequest waits for a transfer with "TO" toSec when the
  // sender passes timeoutMs.
  static unsigned long long TransferWaitMs(unsigned int timeoutMs, unsigned int toSec);

 private:
  int ServeFileTransfer(SipJson& request, unsigned int timeoutMs);
  void ReapFinishedCopies();

  unsigned int m_ServiceType;
  CHtiMode m_Hti;
  CBmcFileTransfer m_FileTransfer;

  std::mutex m_ListenerMutex;  // one listener call at a time
  CISwitchListener* m_pListener = nullptr;

  struct CCopy {
    std::shared_ptr<CBmcTransferJob> m_Job;
    std::thread m_Thread;
  };
  std::mutex m_CopiesMutex;
  std::vector<CCopy> m_Copies;
  bool m_Stopped = false;  // under m_CopiesMutex
};
