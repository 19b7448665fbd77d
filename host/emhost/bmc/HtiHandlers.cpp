// The file transfer's handlers: the fixed answers of the fakes, and the
// copy handler's threads, its bounded wait, its cancel and its record of
// the last answer.
#include "host/emhost/bmc/HtiHandlers.h"

#include "frame/HostServices.h"
#include "message/SipJson.h"

#include <algorithm>
#include <chrono>
#include <pthread.h>
#include <system_error>
#include <utility>

int CStatusHandler::Serve(SipJson& request, unsigned int /*timeoutMs*/) {
  request.SetStatus(m_Status);
  return 1;
}

CBmcCopyHandler::CBmcCopyHandler(std::string bmcDir, CCopySettings copy)
    : m_FileTransfer(std::move(bmcDir), copy) {}

CBmcCopyHandler::~CBmcCopyHandler() { Stop(); }

unsigned long long CBmcCopyHandler::TransferWaitMs(unsigned int timeoutMs, unsigned int toSec) {
  if (toSec == 0) return timeoutMs;  // no "TO": the sender's word alone
  const unsigned long long allowed = toSec * 1000ull + kTransferAnswerGraceMs;
  return std::max<unsigned long long>(timeoutMs, allowed);
}

int CBmcCopyHandler::Serve(SipJson& request, unsigned int timeoutMs) {
  ReapFinishedCopies();
  CBmcTransferRequest parsed;
  const unsigned int parseStatus = CBmcFileTransfer::ParseRequest(request, parsed);
  if (parseStatus != korvex::kStatusDone) {
    request.SetStatus(parseStatus);
    return 1;
  }
  std::shared_ptr<CBmcTransferJob> job;
  try {
    job = StartCopy(parsed);
  } catch (const std::system_error&) {
    // No thread to copy on (resources exhausted): the transfer is not made.
    request.SetStatus(korvex::kStatusBmcWriteFailed);
    return 1;
  }
  // Stopped, or too late: the sender gets no status.
  if (!job || !AwaitAnswer(*job, timeoutMs, parsed.m_TimeoutSec)) return 0;
  Record(*job);
  request.SetStatus(job->m_Status);
  return 1;
}

std::shared_ptr<CBmcTransferJob> CBmcCopyHandler::StartCopy(const CBmcTransferRequest& parsed) {
  auto job = std::make_shared<CBmcTransferJob>();
  std::lock_guard<std::mutex> lock(m_CopiesMutex);
  // The module is being stopped: no new copy.
  if (m_Stopped) return nullptr;
  // Room first, so that a started thread always finds its place.
  m_Copies.reserve(m_Copies.size() + 1);
  m_Copies.push_back(
      CCopy{job, std::thread([this, parsed, job] { m_FileTransfer.Run(parsed, *job); })});
  return job;
}

bool CBmcCopyHandler::AwaitAnswer(CBmcTransferJob& job, unsigned int timeoutMs,
                                  unsigned int toSec) {
  // The module's worker waits here. The host's Kill cancels a worker that
  // outlives Stop; a condition-variable wait must not be unwound by that
  // (it is noexcept), so cancellation is held off for the wait. em-host
  // stops the handlers before the module, which ends the wait at once.
  int cancelState = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
  std::unique_lock<std::mutex> lock(job.m_Mutex);
  const auto answered = [&job] { return job.m_Finished || job.m_Cancelled; };
  if (timeoutMs == CEvent::kInfinite) {
    job.m_Done.wait(lock, answered);
  } else {
    const unsigned long long waitMs = TransferWaitMs(timeoutMs, toSec);
    job.m_Done.wait_for(lock, std::chrono::milliseconds(waitMs), answered);
  }
  pthread_setcancelstate(cancelState, nullptr);
  if (job.m_Finished && !job.m_Cancelled) return true;
  // Too late, or stopped: the copy must never appear.
  job.m_Cancelled = true;
  return false;
}

void CBmcCopyHandler::Record(const CBmcTransferJob& job) {
  // The copy's thread no longer touches a finished job.
  std::lock_guard<std::mutex> lock(m_RecordMutex);
  m_LastMessage = job.m_Message;
  if (job.m_Status != korvex::kStatusDone) return;
  m_StoredPath = job.m_StoredPath;
  m_StoredSha256 = job.m_Sha256;
  m_StoredOverEarlier = job.m_Replaced;
}

std::string CBmcCopyHandler::LastMessage() {
  std::lock_guard<std::mutex> lock(m_RecordMutex);
  return m_LastMessage;
}

std::string CBmcCopyHandler::StoredSha256(const std::string& path) {
  std::lock_guard<std::mutex> lock(m_RecordMutex);
  return path == m_StoredPath ? m_StoredSha256 : std::string();
}

bool CBmcCopyHandler::StoredOverEarlier(const std::string& path) {
  std::lock_guard<std::mutex> lock(m_RecordMutex);
  return path == m_StoredPath && m_StoredOverEarlier;
}

void CBmcCopyHandler::Stop() {
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
    // Wakes a Serve waiting for this copy.
    copy.m_Job->m_Done.notify_all();
  }
  // The copy notices within one chunk and removes its temporary files.
  for (CCopy& copy : copies) copy.m_Thread.join();
}

void CBmcCopyHandler::Allow() {
  std::lock_guard<std::mutex> lock(m_CopiesMutex);
  m_Stopped = false;
}

bool CBmcCopyHandler::Progress(CTransferProgress& out) {
  std::lock_guard<std::mutex> lock(m_CopiesMutex);
  if (m_Copies.empty()) return false;
  const CCopyProgress& progress = m_Copies.back().m_Job->m_Progress;
  out.m_Copied = progress.m_Copied.load(std::memory_order_relaxed);
  out.m_Total = progress.m_Total.load(std::memory_order_relaxed);
  return true;
}

void CBmcCopyHandler::ReapFinishedCopies() {
  std::vector<CCopy> finished;
  {
    std::lock_guard<std::mutex> lock(m_CopiesMutex);
    // Room first: a thread, once moved out, must find its place.
    std::vector<CCopy> running;
    running.reserve(m_Copies.size());
    finished.reserve(m_Copies.size());
    for (CCopy& copy : m_Copies) {
      std::vector<CCopy>& into = copy.m_Job->Finished() ? finished : running;
      into.push_back(std::move(copy));
    }
    m_Copies.swap(running);
  }
  // m_Finished is set at the very end of Run: these joins return at once.
  for (CCopy& copy : finished) copy.m_Thread.join();
}
