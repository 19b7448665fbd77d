// The handlers em-host registers with its switch for the file transfer's
// opcode (0xF052): the BMC stand-in that really copies (CBmcCopyHandler),
// and the fakes that answer in its place for tests and demonstrations
// (CStatusHandler for --hti status:N, CSilentHandler for --hti silent).
//
// How long a copy is waited for: the module passes 5000 (milliseconds) to
// AsyncRequest, but a file of gigabytes needs longer. The copy handler reads
// that argument as the least it waits, and the request's own "TO" (seconds)
// as the time the transfer is allowed: it waits max(argument, "TO" +
// kTransferAnswerGraceMs). The copy stops when "TO" runs out and answers
// kStatusBmcTimedOut; the grace lets that answer through when a write stalls
// on its way. The rule lives here, not in the switch, because "TO" is a
// field of this request that only this handler reads.
#pragma once

#include "host/emhost/bmc/BmcFileTransfer.h"
#include "host/emhost/switch/RequestHandler.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

constexpr unsigned int kTransferAnswerGraceMs = 5000;

// What a waiting command shows of the copy under way.
struct CTransferProgress {
  std::uint64_t m_Copied = 0;
  std::uint64_t m_Total = 0;
};

// Answers every request with one status, at once.
class CStatusHandler final : public CIRequestHandler {
 public:
  explicit CStatusHandler(unsigned int status) : m_Status(status) {}
  int Serve(SipJson& request, unsigned int timeoutMs) override;

 private:
  const unsigned int m_Status;
};

// Never answers: every request goes back without a status.
class CSilentHandler final : public CIRequestHandler {
 public:
  int Serve(SipJson& /*request*/, unsigned int /*timeoutMs*/) override { return 0; }
};

// The BMC stand-in: each request's copy runs on a thread of its own, so
// that the sender's thread can be given its answer in time even when a copy
// stalls (a slow or hung disk).
class CBmcCopyHandler final : public CIRequestHandler {
 public:
  // bmcDir is opened here, once (see CBmcFileTransfer); copy shapes the
  // copies (production defaults).
  explicit CBmcCopyHandler(std::string bmcDir, CCopySettings copy = CCopySettings{});
  ~CBmcCopyHandler() override;  // stops copies still running
  CBmcCopyHandler(const CBmcCopyHandler&) = delete;
  CBmcCopyHandler& operator=(const CBmcCopyHandler&) = delete;

  int Serve(SipJson& request, unsigned int timeoutMs) override;
  // Cancels every copy in flight and waits until each has removed its
  // temporary files; a waiting Serve returns at once without a status, and
  // a cancelled copy never appears. New copies are refused until Allow.
  void Stop() override;
  void Allow() override;

  // The copy under way, if any.
  bool Progress(CTransferProgress& out);
  // What the copy last answered in time said about itself ("" when it
  // succeeded, or when none has been answered).
  std::string LastMessage();
  // The digest of path when the last successful answer stored it there;
  // "" otherwise.
  std::string StoredSha256(const std::string& path);
  // Whether the last successful answer that stored path replaced an
  // earlier file there.
  bool StoredOverEarlier(const std::string& path);

  // How long Serve waits for a copy with "TO" toSec when the sender passes
  // timeoutMs.
  static unsigned long long TransferWaitMs(unsigned int timeoutMs, unsigned int toSec);

 private:
  struct CCopy {
    std::shared_ptr<CBmcTransferJob> m_Job;
    std::thread m_Thread;
  };

  // The job of a copy started on its own thread; nullptr while stopped.
  // Throws std::system_error when no thread can be made.
  std::shared_ptr<CBmcTransferJob> StartCopy(const CBmcTransferRequest& parsed);
  // Waits for job's answer; false when it came too late or was cancelled
  // (the copy then never appears).
  bool AwaitAnswer(CBmcTransferJob& job, unsigned int timeoutMs, unsigned int toSec);
  void Record(const CBmcTransferJob& job);
  void ReapFinishedCopies();

  CBmcFileTransfer m_FileTransfer;

  std::mutex m_CopiesMutex;
  std::vector<CCopy> m_Copies;
  bool m_Stopped = false;  // under m_CopiesMutex

  std::mutex m_RecordMutex;
  std::string m_LastMessage;
  std::string m_StoredPath;
  std::string m_StoredSha256;
  bool m_StoredOverEarlier = false;
};
