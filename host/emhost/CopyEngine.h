// The verified copy behind the stand-in BMC: one pass over the source at
// close to the disk's speed, the SHA-256 digest computed on the way, and
// every byte of the copy read back after it was written out and compared
// with the source bytes that went into the digest.
//
// Two threads share the work: the calling thread reads a chunk, hands it to
// a hashing thread, writes it and starts its write-out at once
// (sync_file_range); a few chunks later it waits for that write-out, reads
// the chunk back and compares it. The read-back uses a descriptor opened
// with O_DIRECT where the file system has one, so it comes from the device
// (or its own cache), not from the page cache; without O_DIRECT the written
// pages are dropped from the page cache first (POSIX_FADV_DONTNEED), which
// makes a normal file system read them from the device as well, and on a
// memory file system reads what the kernel holds, which is all there is.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// How a copy is made. The defaults are the production values.
struct CCopySettings {
  // Bytes read, digested, written and read back at a time; rounded up to a
  // multiple of 4096 (direct I/O needs aligned offsets).
  std::size_t m_ChunkBytes = 4u << 20;
  // Chunks written ahead of their read-back: the device writes these while
  // the next ones are copied. As many chunk buffers are held in memory.
  unsigned int m_Window = 8;
  // A pause after every chunk, in milliseconds: a slow disk, for tests and
  // demonstrations. 0 in production.
  unsigned int m_PauseMs = 0;
};

// Bytes done and bytes expected of the copy under way, for progress
// displays on other threads.
struct CCopyProgress {
  std::atomic<std::uint64_t> m_Copied{0};
  std::atomic<std::uint64_t> m_Total{0};
};

enum class CopyOutcome {
  kDone,
  kReadFailed,   // the source could not be read
  kNoSpace,      // ENOSPC or EDQUOT while writing
  kWriteFailed,  // any other write or write-out error
  kMismatch,     // the copy read back differs from the source
  kStopped,      // the stop check asked to end
};

struct CCopyResult {
  CopyOutcome m_Outcome = CopyOutcome::kWriteFailed;
  std::uint64_t m_Bytes = 0;
  std::string m_Sha256;       // kDone: the digest, 64 lower-case hex digits
  bool m_FromDevice = false;  // kDone: the read-back used direct I/O
  std::string m_Why;          // not kDone: what failed, in words
};

// Copies source (read from its current offset 0 to its end) into target
// (an empty file opened for reading and writing) and verifies it; target is
// fsync'ed before the last chunks are read back. readBack is a descriptor
// of the same file opened with O_DIRECT, or -1. stop is called after every
// chunk; when it returns true the copy ends with kStopped. progress, when
// given, is updated after every chunk.
CCopyResult CopyVerified(int source, int target, int readBack, const CCopySettings& settings,
                         const std::function<bool()>& stop, CCopyProgress* progress);
