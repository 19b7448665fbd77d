// The recording switch shared by the test suites, the fuzzers and the
// benchmarks.
#include "tests/support/RecordingSwitch.h"

#include <utility>

unsigned int CRecordingSwitch::GetServiceType() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  ++m_ServiceTypeQueries;
  return m_ServiceType;
}

int CRecordingSwitch::AsyncRequest(CIExtensionModule* sender, SipJson& request,
                                   unsigned int timeout) {
  CAnswer answer;
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    ++m_AsyncRequestCount;
    if (m_KeepCopies) m_AsyncRequests.push_back({sender, request.ToJson(), timeout});
    answer = m_AnswerAsync;
  }
  if (answer) answer(request);
  return 1;
}

int CRecordingSwitch::SendReply(CIExtensionModule* sender, SipJson& message) {
  CWatcher watcher;
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    watcher = m_Watcher;
  }
  if (watcher) watcher(message);
  // The message is the queue's copy: read it whole once, as a switch would.
  std::string json = message.ToJson();
  std::lock_guard<std::mutex> lock(m_Mutex);
  ++m_ReplyCount;
  ++m_ByObjectId[message.ObjectId()];
  ++m_ByStatus[message.Status()];
  if (m_KeepCopies) m_Replies.push_back({sender, std::move(json), 0});
  m_Changed.notify_all();
  return 1;
}

bool CRecordingSwitch::WaitForReplies(std::size_t count, unsigned int timeoutMs) {
  std::unique_lock<std::mutex> lock(m_Mutex);
  return m_Changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                            [&] { return m_ReplyCount >= count; });
}

std::vector<CRecordingSwitch::CCall> CRecordingSwitch::Replies() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_Replies;
}

std::vector<CRecordingSwitch::CCall> CRecordingSwitch::AsyncRequests() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_AsyncRequests;
}

std::size_t CRecordingSwitch::ReplyCount() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_ReplyCount;
}

std::size_t CRecordingSwitch::AsyncRequestCount() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_AsyncRequestCount;
}

std::map<unsigned int, unsigned int> CRecordingSwitch::RepliesByObjectId() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_ByObjectId;
}

std::map<unsigned int, unsigned int> CRecordingSwitch::RepliesByStatus() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_ByStatus;
}

unsigned int CRecordingSwitch::ServiceTypeQueries() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_ServiceTypeQueries;
}

void CRecordingSwitch::SetServiceType(unsigned int type) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_ServiceType = type;
}

void CRecordingSwitch::SetAsyncAnswer(CAnswer answer) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_AnswerAsync = std::move(answer);
}

void CRecordingSwitch::SetReplyWatcher(CWatcher watcher) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_Watcher = std::move(watcher);
}
