// The switch's events for one command (see CommandListener.h).
#include "host/emhost/cli/CommandListener.h"

#include "host/emhost/bmc/BmcFileTransfer.h"
#include "message/SipJson.h"

void CCommandListener::OnReply(std::uint64_t tag, SipJson& message) {
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Replies[tag].m_Status = message.Status();
  }
  m_Replied.Notify();
}

void CCommandListener::OnTransferDone(const CBmcTransferJob& job) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_TransferMessage = job.m_Message;
  if (job.m_Status == BMC_OK) {
    m_StoredPath = job.m_StoredPath;
    m_StoredSha256 = job.m_Sha256;
  }
}

bool CCommandListener::TakeReply(std::uint64_t tag, CReply& out) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  const auto found = m_Replies.find(tag);
  if (found == m_Replies.end()) return false;
  out = found->second;
  m_Replies.erase(found);
  return true;
}

std::string CCommandListener::TransferMessage() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_TransferMessage;
}

std::string CCommandListener::StoredSha256(const std::string& path) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return path == m_StoredPath ? m_StoredSha256 : std::string();
}
