// A switch for tests: records every AsyncRequest and SendReply as a copy of
// the message, answers GetServiceType, and lets a test decide how an
// AsyncRequest is answered (by default it writes nothing into the request).
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "frame/HostServices.h"
#include "message/SipJson.h"

class CRecordingSwitch : public CISwitch {
 public:
  struct CCall {
    CIExtensionModule* m_pSender;
    std::string m_Json;       // the message as compact JSON, at call time
    unsigned int m_Timeout;   // AsyncRequest only
  };

  unsigned int GetServiceType() override {
    std::lock_guard<std::mutex> lock(m_Mutex);
    ++m_ServiceTypeQueries;
    return m_ServiceType;
  }

  int AsyncRequest(CIExtensionModule* sender, SipJson& request, unsigned int timeout) override {
    std::function<void(SipJson&)> answer;
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_AsyncRequests.push_back({sender, request.ToJson(), timeout});
      answer = m_AnswerAsync;
    }
    if (answer) answer(request);
    return 1;
  }

  int SendReply(CIExtensionModule* sender, SipJson& message) override {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Replies.push_back({sender, message.ToJson(), 0});
    m_Changed.notify_all();
    return 1;
  }

  // Waits up to timeoutMs for at least count replies; true when they came.
  bool WaitForReplies(std::size_t count, unsigned int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                              [&] { return m_Replies.size() >= count; });
  }

  std::vector<CCall> Replies() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Replies;
  }
  std::vector<CCall> AsyncRequests() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_AsyncRequests;
  }
  void SetServiceType(unsigned int type) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_ServiceType = type;
  }
  // How the "other module" answers an AsyncRequest (e.g. writes "ST").
  void SetAsyncAnswer(std::function<void(SipJson&)> answer) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_AnswerAsync = std::move(answer);
  }
  unsigned int ServiceTypeQueries() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_ServiceTypeQueries;
  }

 private:
  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  unsigned int m_ServiceType = 5;
  unsigned int m_ServiceTypeQueries = 0;
  std::function<void(SipJson&)> m_AnswerAsync;
  std::vector<CCall> m_AsyncRequests;
  std::vector<CCall> m_Replies;
};
