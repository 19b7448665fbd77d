// A switch for tests, fuzzers and benchmarks: answers GetServiceType,
// counts every SendReply by the object id and status of the reply, keeps a
// copy of each message as JSON (unless told not to: a fuzzer or a benchmark
// sees millions), lets the caller decide how an AsyncRequest is answered
// (by default nothing is written into the request) and lets it watch each
// reply as it comes (a benchmark stamps the time there).
#pragma once

#include "frame/HostServices.h"
#include "message/SipJson.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

class CRecordingSwitch : public CISwitch {
 public:
  struct CCall {
    CIExtensionModule* m_pSender;
    std::string m_Json;      // the message as compact JSON, at call time
    unsigned int m_Timeout;  // AsyncRequest only
  };
  using CAnswer = std::function<void(SipJson&)>;
  using CWatcher = std::function<void(const SipJson&)>;

  // keepCopies false: only the counts, no copies of the messages.
  explicit CRecordingSwitch(bool keepCopies = true) : m_KeepCopies(keepCopies) {}

  unsigned int GetServiceType() override;
  int AsyncRequest(CIExtensionModule* sender, SipJson& request, unsigned int timeout) override;
  int SendReply(CIExtensionModule* sender, SipJson& message) override;

  // Waits up to timeoutMs for at least count replies; true when they came.
  bool WaitForReplies(std::size_t count, unsigned int timeoutMs);

  std::vector<CCall> Replies();
  std::vector<CCall> AsyncRequests();
  std::size_t ReplyCount();
  std::size_t AsyncRequestCount();
  // Replies by the "OI" and by the "ST" of the message.
  std::map<unsigned int, unsigned int> RepliesByObjectId();
  std::map<unsigned int, unsigned int> RepliesByStatus();
  unsigned int ServiceTypeQueries();

  void SetServiceType(unsigned int type);
  // How the "other module" answers an AsyncRequest (e.g. writes "ST").
  void SetAsyncAnswer(CAnswer answer);
  // Called first in every SendReply, before anything is recorded.
  void SetReplyWatcher(CWatcher watcher);

 private:
  const bool m_KeepCopies;
  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  unsigned int m_ServiceType = 5;
  unsigned int m_ServiceTypeQueries = 0;
  CAnswer m_AnswerAsync;
  CWatcher m_Watcher;
  std::vector<CCall> m_AsyncRequests;
  std::vector<CCall> m_Replies;
  std::size_t m_AsyncRequestCount = 0;
  std::size_t m_ReplyCount = 0;
  std::map<unsigned int, unsigned int> m_ByObjectId;
  std::map<unsigned int, unsigned int> m_ByStatus;
};
