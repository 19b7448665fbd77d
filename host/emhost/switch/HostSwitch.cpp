// em-host's switch: request delivery with reply tags, the routing of 0xF052
// to the stand-in BMC file transfer, and the hand-back of answers.
#include "host/emhost/switch/HostSwitch.h"

#include "frame/ExtensionModule.h"
#include "message/SipJson.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <system_error>
#include <utility>

namespace {

constexpr char kTagPrefix[] = "em-host:";

}  // namespace

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
  if (text.compare(0, kStatusPrefix.size(), kStatusPrefix) == 0 &&
      text.size() > kStatusPrefix.size()) {
    const std::string number = text.substr(kStatusPrefix.size());
    if (number.find_first_not_of("0123456789") != std::string::npos || number.size() > 10) {
      return false;
    }
    const unsigned long long value = std::strtoull(number.c_str(), nullptr, 10);
    if (value > 0xFFFFFFFFull) return false;
    out = CHtiMode{kStatus, static_cast<unsigned int>(value)};
    return true;
  }
  return false;
}

CHostSwitch::CHostSwitch(unsigned int serviceType, CHtiMode hti, std::string bmcDir,
                         CCopySettings copy)
    : m_ServiceType(serviceType), m_Hti(hti), m_FileTransfer(std::move(bmcDir), copy) {}

CHostSwitch::~CHostSwitch() { StopTransfers(); }

void CHostSwitch::StopTransfers() {
  std::vector<CCopy> copies;
  {
    std::lock_guard<std::mutex> lock(m_CopiesMutex);
    m_Stopped = true;
    copies.swap(m_Copies);
  }
  for (CCopy& copy : copies) {
    {
      std::lock_guard<std::mutex> lock(copy.m_Job->m_Mutex);
      copy.m_Job->m_Cancelled = true;
    }
    // Wakes an AsyncRequest waiting for this copy.
    copy.m_Job->m_Done.notify_all();
  }
  // The copy notices within one chunk and removes its temporary files.
  for (CCopy& copy : copies) copy.m_Thread.join();
}

void CHostSwitch::AllowTransfers() {
  std::lock_guard<std::mutex> lock(m_CopiesMutex);
  m_Stopped = false;
}

bool CHostSwitch::TransferProgress(CTransferProgress& out) {
  std::lock_guard<std::mutex> lock(m_CopiesMutex);
  if (m_Copies.empty()) return false;
  const CCopyProgress& progress = m_Copies.back().m_Job->m_Progress;
  out.m_Copied = progress.m_Copied.load(std::memory_order_relaxed);
  out.m_Total = progress.m_Total.load(std::memory_order_relaxed);
  return true;
}

unsigned long long CHostSwitch::TransferWaitMs(unsigned int timeoutMs, unsigned int toSec) {
  if (toSec == 0) return timeoutMs;  // no "TO": the sender's word alone
  const unsigned long long allowed = toSec * 1000ull + kTransferAnswerGraceMs;
  return std::max<unsigned long long>(timeoutMs, allowed);
}

void CHostSwitch::SetListener(CISwitchListener* listener) {
  std::lock_guard<std::mutex> lock(m_ListenerMutex);
  m_pListener = listener;
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
  if (request.OpCode() != kOpcodeFileTransfer || m_Hti.m_Kind == CHtiMode::kAbsent) {
    // No module serves this opcode: the request comes back as it went out.
    return 0;
  }
  {
    std::lock_guard<std::mutex> lock(m_ListenerMutex);
    if (m_pListener != nullptr) m_pListener->OnTransfer(request);
  }
  switch (m_Hti.m_Kind) {
    case CHtiMode::kStatus:
      request.SetStatus(m_Hti.m_Status);
      return 1;
    case CHtiMode::kSilent:
      return 0;
    default:
      return ServeFileTransfer(request, timeout);
  }
}

int CHostSwitch::ServeFileTransfer(SipJson& request, unsigned int timeoutMs) {
  ReapFinishedCopies();
  CBmcTransferRequest parsed;
  const unsigned int parseStatus = CBmcFileTransfer::ParseRequest(request, parsed);
  if (parseStatus != BMC_OK) {
    request.SetStatus(parseStatus);
    return 1;
  }
  // The copy runs on its own thread, so that the switch can keep its word
  // to return in time even when a copy stalls (a slow or hung disk).
  auto job = std::make_shared<CBmcTransferJob>();
  {
    std::lock_guard<std::mutex> lock(m_CopiesMutex);
    // The module is being stopped: no new copy (the request gets no status).
    if (m_Stopped) return 0;
    try {
      m_Copies.push_back(
          CCopy{job, std::thread([this, parsed, job] { m_FileTransfer.Run(parsed, *job); })});
    } catch (const std::system_error&) {
      // No thread to copy on (resources exhausted): the transfer is not made.
      request.SetStatus(BMC_WRITE_FAILED);
      return 1;
    }
  }

  // The module's worker waits here. The host's Kill cancels a worker that
  // outlives Stop; a condition-variable wait must not be unwound by that
  // (it is noexcept), so cancellation is held off for the wait. em-host
  // calls StopTransfers before Stop, which ends the wait at once.
  int cancelState = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
  std::unique_lock<std::mutex> lock(job->m_Mutex);
  const auto answered = [&] { return job->m_Finished || job->m_Cancelled; };
  if (timeoutMs == CEvent::kInfinite) {
    job->m_Done.wait(lock, answered);
  } else {
    const unsigned long long waitMs = TransferWaitMs(timeoutMs, parsed.m_TimeoutSec);
    job->m_Done.wait_for(lock, std::chrono::milliseconds(waitMs), answered);
  }
  pthread_setcancelstate(cancelState, nullptr);
  if (!job->m_Finished || job->m_Cancelled) {
    // Too late, or stopped: the sender gets no status, and the copy must
    // never appear.
    job->m_Cancelled = true;
    return 0;
  }
  const unsigned int status = job->m_Status;
  lock.unlock();
  {
    std::lock_guard<std::mutex> listenerLock(m_ListenerMutex);
    if (m_pListener != nullptr) m_pListener->OnTransferDone(*job);
  }
  request.SetStatus(status);
  return 1;
}

void CHostSwitch::ReapFinishedCopies() {
  std::vector<CCopy> finished;
  {
    std::lock_guard<std::mutex> lock(m_CopiesMutex);
    for (auto it = m_Copies.begin(); it != m_Copies.end();) {
      bool done;
      {
        std::lock_guard<std::mutex> jobLock(it->m_Job->m_Mutex);
        done = it->m_Job->m_Finished;
      }
      if (done) {
        finished.push_back(std::move(*it));
        it = m_Copies.erase(it);
      } else {
        ++it;
      }
    }
  }
  // m_Finished is set at the very end of Run: these joins return at once.
  for (CCopy& copy : finished) copy.m_Thread.join();
}

int CHostSwitch::SendReply(CIExtensionModule* /*sender*/, SipJson& message) {
  const std::uint64_t tag = TagOf(message);
  std::lock_guard<std::mutex> lock(m_ListenerMutex);
  if (m_pListener != nullptr) m_pListener->OnReply(tag, message);
  return tag != 0 ? 1 : 0;
}
