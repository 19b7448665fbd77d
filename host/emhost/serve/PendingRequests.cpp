// serve's bookkeeping of requests that may still be answered.
#include "host/emhost/serve/PendingRequests.h"

#include <utility>

std::uint64_t CPendingRequests::Add(std::string id) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  const std::uint64_t tag = m_NextTag++;
  m_States[tag].m_Id = std::move(id);
  return tag;
}

void CPendingRequests::Acknowledged(std::uint64_t tag, bool queued) {
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    const auto found = m_States.find(tag);
    if (found == m_States.end()) return;  // answered (and forgotten) before its ack
    if (queued) {
      found->second.m_Acknowledged = true;
      ++m_Waiting;
    } else {
      m_States.erase(found);
    }
  }
  m_AckChanged.notify_all();
}

bool CPendingRequests::IdForReply(std::uint64_t tag, std::string& id) {
  std::unique_lock<std::mutex> lock(m_Mutex);
  if (m_States.find(tag) == m_States.end()) return false;
  // A quick job can answer before ModuleRequest has even returned; the
  // requester still sees the ack first.
  std::map<std::uint64_t, CState>::iterator found;
  m_AckChanged.wait(lock, [&] {
    found = m_States.find(tag);
    return found == m_States.end() || found->second.m_Acknowledged;
  });
  if (found == m_States.end()) return false;  // dropped meanwhile
  id = found->second.m_Id;
  return true;
}

void CPendingRequests::Replied(std::uint64_t tag) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  // This one and every earlier one: requests are delivered in tag order and
  // acknowledged before the next is delivered, so every earlier one still
  // here is acknowledged as queued, and can no longer be answered.
  const auto end = m_States.upper_bound(tag);
  for (auto it = m_States.begin(); it != end; ++it) {
    if (it->second.m_Acknowledged) --m_Waiting;
  }
  m_States.erase(m_States.begin(), end);
}

void CPendingRequests::DropAll() {
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_States.clear();
    m_Waiting = 0;
  }
  m_AckChanged.notify_all();
}

std::size_t CPendingRequests::Waiting() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_Waiting;
}

std::size_t CPendingRequests::Size() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_States.size();
}
