// The stand-in BMC file-transfer module of em-host: it serves opcode 0xF052,
// the request by which the Korvex module hands its archive to the BMC, and
// stores the file in a plain directory (--bmc-dir) instead of a controller.
//
// A stored file is complete or absent: the copy goes to a hidden temporary
// name in the BMC directory, is synced, read back and compared by SHA-256
// with its source, and only then renamed to its final name. Its checksum is
// recorded beside it as "NAME.sha256" in the line format sha256sum -c reads.
#pragma once

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
  BMC_SOURCE_UNREADABLE = 9,  // "LocalFilePath" is not a readable regular file
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
// and the thread that carries out the copy. The switch may give up: it then
// sets m_Cancelled, and the copy never becomes visible, because the final
// rename happens under m_Mutex only while m_Cancelled is still false.
struct CBmcTransferJob {
  std::mutex m_Mutex;
  std::condition_variable m_Done;
  bool m_Finished = false;
  bool m_Cancelled = false;
  unsigned int m_Status = BMC_WRITE_FAILED;
  std::string m_StoredPath;  // on success
  std::string m_Sha256;      // on success
  std::uint64_t m_Size = 0;  // on success

  bool Cancelled() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Cancelled;
  }
};

class CBmcFileTransfer {
 public:
  explicit CBmcFileTransfer(std::string bmcDir);

  const std::string& BmcDir() const { return m_BmcDir; }

  // Reads the request's current command; BMC_OK or BMC_BAD_REQUEST.
  static unsigned int ParseRequest(const SipJson& request, CBmcTransferRequest& out);
  // Whether a BMC file name may be used: one plain name inside the BMC
  // directory, never a path that leaves it.
  static bool NameAcceptable(const std::string& name);

  // Carries out one request and finishes job (status, and on success the
  // stored path, size and digest). Blocks for the whole copy.
  void Run(const CBmcTransferRequest& request, CBmcTransferJob& job) const;

  // Test hook: a pause after each copied chunk, and the chunk size, so that
  // a test can make a copy outlast its time limit.
  void SetThrottleForTesting(unsigned int chunkBytes, unsigned int pauseMs) {
    m_ChunkBytes = chunkBytes;
    m_PauseMs = pauseMs;
  }

 private:
  unsigned int Copy(const CBmcTransferRequest& request, CBmcTransferJob& job) const;

  std::string m_BmcDir;
  unsigned int m_ChunkBytes = 1u << 20;
  unsigned int m_PauseMs = 0;
};
