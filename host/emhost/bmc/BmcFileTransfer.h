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

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

class SipJson;

// Opcode of the file-transfer request and the one file type it knows.
constexpr unsigned int kOpcodeFileTransfer = 0xF052u;
constexpr unsigned int kFileTypeKorvexArchive = 2u;

// Statuses the stand-in answers in "ST". They are chosen apart from the
// statuses the Korvex module writes itself (0 1 3 5 6 13 20 22), because
// the module passes them on to its requester unchanged.
enum BmcTransferStatus : unsigned int {
  BMC_OK = 0,            // stored, verified, checksum recorded
  BMC_BAD_REQUEST = 7,   // "DA" is not {"FileType":2,"LocalFilePath":"...","BmcFilePath":"..."}
  BMC_NAME_REFUSED = 8,  // "BmcFilePath" empty, absolute, ".", over 200 bytes, or holds ".." or "/"
  BMC_SOURCE_UNREADABLE = 9,  // "LocalFilePath" is not a readable regular file (a link,
                              // FIFO, device, socket or directory is refused unopened
                              // or unread)
  BMC_NO_SPACE = 10,          // not enough free space in the BMC directory
  BMC_TIMED_OUT = 11,         // not done within the request's "TO" seconds
  BMC_WRITE_FAILED = 12,      // the BMC directory cannot be written, or the copy did not verify
};

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
  unsigned int m_Status = BMC_WRITE_FAILED;
  std::string m_Message;              // not BMC_OK: what was wrong, in words
  std::string m_StoredPath;           // on success
  std::string m_Sha256;               // on success
  std::uint64_t m_Size = 0;           // on success
  bool m_ReadBackFromDevice = false;  // on success: the verification used direct I/O
  CCopyProgress m_Progress;           // read without the lock

  bool Cancelled() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Cancelled;
  }
};

class CBmcFileTransfer {
 public:
  // Opens bmcDir now; it is never looked up by its path again. settings
  // (production defaults) shape the copy, its throttle included.
  explicit CBmcFileTransfer(std::string bmcDir, CCopySettings settings = CCopySettings{});

  const std::string& BmcDir() const { return m_Dir.Path(); }

  // Reads the request's current command; BMC_OK or BMC_BAD_REQUEST.
  static unsigned int ParseRequest(const SipJson& request, CBmcTransferRequest& out);
  // Whether a BMC file name may be used: one plain name inside the BMC
  // directory, never a path that leaves it.
  static bool NameAcceptable(const std::string& name);

  // Carries out one request and finishes job (status, and on success the
  // stored path, size and digest). Blocks for the whole copy; stops early,
  // leaving nothing behind, when "TO" runs out (BMC_TIMED_OUT) or the job
  // is cancelled.
  void Run(const CBmcTransferRequest& request, CBmcTransferJob& job) const;

 private:
  unsigned int Copy(const CBmcTransferRequest& request, CBmcTransferJob& job) const;
  unsigned int Store(const CBmcTransferRequest& request, int source, CBmcTransferJob& job,
                     const std::function<bool()>& overdue) const;

  CBmcDirectory m_Dir;
  CCopySettings m_Settings;
};

// Opens path for a copy: a regular file only, never through a symbolic
// link, and without blocking on a FIFO. -1 with why set ("... is a FIFO").
int OpenRegularSource(const std::string& path, std::string& why);
