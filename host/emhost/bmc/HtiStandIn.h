// What serves the file transfer's opcode in em-host, as the option --hti
// chooses it: the one place where the command line and the serve session
// build the switch's handler for it. CHtiStandIn owns the chosen handler
// (HtiHandlers.h), registers it with a switch, and answers what a command
// shows of the copy: its progress, its message and the digest it stored.
#pragma once

#include "host/emhost/bmc/HtiHandlers.h"

#include <memory>
#include <string>

class CHostSwitch;

// How the file-transfer requests are served (option --hti).
struct CHtiMode {
  enum Kind { kCopy, kStatus, kSilent, kAbsent };
  Kind m_Kind = kCopy;
  unsigned int m_Status = 0;  // kStatus: the status answered

  // "status:N", "silent", "absent" (and "copy", the default); false when
  // the text is none of them.
  static bool Parse(const std::string& text, CHtiMode& out);
};

class CHtiStandIn {
 public:
  // bmcDir and copy are used in the copy mode only (production defaults).
  CHtiStandIn(CHtiMode mode, std::string bmcDir, CCopySettings copy = CCopySettings{});
  CHtiStandIn(const CHtiStandIn&) = delete;
  CHtiStandIn& operator=(const CHtiStandIn&) = delete;

  // Registers the handler for the file transfer's opcode; in the absent
  // mode none, so that the switch answers as a host without the module
  // would. This object must outlive the switch's use of it.
  void RegisterWith(CHostSwitch& hostSwitch);

  // The copy under way, if any (copy mode only).
  bool TransferProgress(CTransferProgress& out);
  // What the file transfer said about its last answer ("" when nothing).
  std::string TransferMessage();
  // The digest recorded for path by the last verified copy, if any.
  std::string StoredSha256(const std::string& path);
  // Whether the last verified copy to path replaced an earlier file there.
  bool StoredOverEarlier(const std::string& path);

 private:
  std::unique_ptr<CIRequestHandler> m_Handler;  // none in the absent mode
  CBmcCopyHandler* m_pCopier = nullptr;         // m_Handler in the copy mode
};
