// The --hti modes and the handler each of them registers.
#include "host/emhost/bmc/HtiStandIn.h"

#include "host/emhost/switch/HostSwitch.h"
#include "module/Protocol.h"

#include <cstdlib>
#include <utility>

bool CHtiMode::Parse(const std::string& text, CHtiMode& out) {
  if (text == "copy") {
    out = CHtiMode{};
    return true;
  }
  if (text == "silent") {
    out = CHtiMode{kSilent, 0};
    return true;
  }
  if (text == "absent") {
    out = CHtiMode{kAbsent, 0};
    return true;
  }
  static const std::string kStatusPrefix = "status:";
  if (text.compare(0, kStatusPrefix.size(), kStatusPrefix) != 0 ||
      text.size() == kStatusPrefix.size()) {
    return false;
  }
  const std::string number = text.substr(kStatusPrefix.size());
  if (number.find_first_not_of("0123456789") != std::string::npos || number.size() > 10) {
    return false;
  }
  const unsigned long long value = std::strtoull(number.c_str(), nullptr, 10);
  if (value > 0xFFFFFFFFull) return false;
  out = CHtiMode{kStatus, static_cast<unsigned int>(value)};
  return true;
}

CHtiStandIn::CHtiStandIn(CHtiMode mode, std::string bmcDir, CCopySettings copy) {
  switch (mode.m_Kind) {
    case CHtiMode::kCopy: {
      auto copier = std::make_unique<CBmcCopyHandler>(std::move(bmcDir), copy);
      m_pCopier = copier.get();
      m_Handler = std::move(copier);
      break;
    }
    case CHtiMode::kStatus:
      m_Handler = std::make_unique<CStatusHandler>(mode.m_Status);
      break;
    case CHtiMode::kSilent:
      m_Handler = std::make_unique<CSilentHandler>();
      break;
    case CHtiMode::kAbsent:
      break;
  }
}

void CHtiStandIn::RegisterWith(CHostSwitch& hostSwitch) {
  if (m_Handler) hostSwitch.Register(korvex::kOpcodeHtiFileTransfer, m_Handler.get());
}

bool CHtiStandIn::TransferProgress(CTransferProgress& out) {
  return m_pCopier != nullptr && m_pCopier->Progress(out);
}

std::string CHtiStandIn::TransferMessage() {
  return m_pCopier != nullptr ? m_pCopier->LastMessage() : std::string();
}

bool CHtiStandIn::StoredOverEarlier(const std::string& path) {
  return m_pCopier != nullptr && m_pCopier->StoredOverEarlier(path);
}

std::string CHtiStandIn::StoredSha256(const std::string& path) {
  return m_pCopier != nullptr ? m_pCopier->StoredSha256(path) : std::string();
}
