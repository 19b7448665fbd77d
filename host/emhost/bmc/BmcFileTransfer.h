// The stand-in BMC file-transfer module of em-host: it serves opcode 0xF052,
// the request by which the Korvex module hands its archive to the BMC, and
// stores the file in a plain directory (--bmc-dir) instead of a controller.
//
// A stored file is complete or absent: the copy goes to a hidden temporary
// name in the BMC directory, digested while it is written, synced, read
// back and compared with its source (from the page cache by default, from
// the device on request: CopyEngine.h says what each proves), and only then
// renamed to its final name. Its checksum is recorded beside it as
// "NAME.sha256" in the line format sha256sum -c reads.
//
// Only a regular file is copied, opened without following a link and
// without blocking; and only into the BMC directory, which is opened once
// (BmcDirectory.h).
#pragma once

#include "host/emhost/bmc/BmcDirectory.h"
#include "host/emhost/bmc/CopyEngine.h"
#include "module/Protocol.h"
#include "util/Fd.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

class SipJson;

// The stand-in answers in "ST" with korvex::kStatusDone or one of the
// korvex::kStatusBmc* statuses (module/Protocol.h). They are chosen apart
// from the statuses the Korvex module writes itself, because the module
// passes them on to its requester unchanged.

// What one request asks for, read from its current command.
struct CBmcTransferRequest {
  unsigned int m_FileType = 0;
  std::string m_LocalPath;
  std::string m_BmcName;
  unsigned int m_TimeoutSec = 0;  // "TO"; 0 (absent): no limit of its own
};

// Shared between the switch, which waits for an answer for a bounded time,
// and the thread that carries out the copy. The switch may give up, or em-host
// may stop the module: m_Cancelled is then set (and m_Done notified), and
// the copy never becomes visible, because the final rename happens under
// m_Mutex only while m_Cancelled is still false.
struct CBmcTransferJob {
  std::mutex m_Mutex;
  std::condition_variable m_Done;
  bool m_Finished = false;
  bool m_Cancelled = false;
  unsigned int m_Status = korvex::kStatusBmcWriteFailed;
  std::string m_Message;              // not kStatusDone: what was wrong, in words
  std::string m_StoredPath;           // on success
  std::string m_Sha256;               // on success
  std::uint64_t m_Size = 0;           // on success
  bool m_ReadBackFromDevice = false;  // on success: the verification used direct I/O
  bool m_Replaced = false;            // on success: an earlier file of the name was replaced
  CCopyProgress m_Progress;           // read without the lock

  bool Cancelled() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Cancelled;
  }
  bool Finished() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Finished;
  }
};

class CBmcFileTransfer {
 public:
  // Opens bmcDir now; it is never looked up by its path again. settings
  // (production defaults) shape the copy, its throttle included.
  explicit CBmcFileTransfer(std::string bmcDir, CCopySettings settings = CCopySettings{});

  // Reads the request's current command; kStatusDone or kStatusBmcBadRequest.
  static unsigned int ParseRequest(const SipJson& request, CBmcTransferRequest& out);
  // Whether a BMC file name may be used: one plain name inside the BMC
  // directory, never a path that leaves it.
  static bool NameAcceptable(const std::string& name);

  // Carries out one request and finishes job (status, and on success the
  // stored path, size and digest). Blocks for the whole copy; stops early,
  // leaving nothing behind, when "TO" runs out (kStatusBmcTimedOut) or the job
  // is cancelled.
  void Run(const CBmcTransferRequest& request, CBmcTransferJob& job) const;

 private:
  unsigned int Copy(const CBmcTransferRequest& request, CBmcTransferJob& job) const;

  CBmcDirectory m_Dir;
  CCopySettings m_Settings;
};

// Opens path for a copy: a regular file only, never through a symbolic
// link, and without blocking on a FIFO. None held, with why set ("... is a
// FIFO"), when the file is refused or cannot be opened.
korvex::CFd OpenRegularSource(const std::string& path, std::string& why);
