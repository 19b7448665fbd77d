// The switch's events for one command (see CommandListener.h).
#include "host/emhost/cli/CommandListener.h"

#include "message/SipJson.h"

void CCommandListener::OnReply(std::uint64_t tag, SipJson& message) {
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Replies[tag].m_Status = message.Status();
  }
  m_Replied.Notify();
}

bool CCommandListener::TakeReply(std::uint64_t tag, CReply& out) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  const auto found = m_Replies.find(tag);
  if (found == m_Replies.end()) return false;
  out = found->second;
  m_Replies.erase(found);
  return true;
}
