// The verified copy behind the stand-in BMC: one pass over the source at
// close to the disk's speed, the SHA-256 digest computed on the way, and
// every byte of the copy read back after it was written out and compared
// with the source bytes that went into the digest.
//
// Two threads share the work: the calling thread reads a chunk, hands it to
// a hashing thread, writes it and starts its write-out at once
// (sync_file_range); a few chunks later it reads the chunk back and
// compares it. Where the read-back comes from is the caller's choice:
// - from the page cache (readBack -1, the BMC stand-in's default): proves
//   that the kernel holds for the copy exactly the bytes that were digested
//   (no short or misplaced write, nothing else wrote the file), and the
//   final fsync's success says the kernel wrote them to the device without
//   an error it noticed. It costs one memory-speed read.
// - from the device (a descriptor opened with O_DIRECT): each chunk is
//   waited for until written out, then read with direct I/O, which bypasses
//   the page cache and returns what the device (or its own cache) holds.
//   That doubles the device's work: measured at about three times the time
//   of cp + sync (docs/PERFORMANCE.md).
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
  std::size_t m_ChunkBytes = 1u << 20;
  // Chunks written ahead of their read-back: the device writes these while
  // the next ones are copied. As many chunk buffers are held in memory.
  unsigned int m_Window = 8;
  // A pause after every chunk, in milliseconds: a slow disk, for tests and
  // demonstrations. 0 in production.
  unsigned int m_PauseMs = 0;
  // Read the copy back from the device (direct I/O) rather than from the
  // page cache; see above for what each proves and costs.
  bool m_ReadBackFromDevice = false;
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
// of the same file opened with O_DIRECT (read back from the device), or -1
// (read back from the page cache). stop is called after every
// chunk; when it returns true the copy ends with kStopped. progress, when
// given, is updated after every chunk.
CCopyResult CopyVerified(int source, int target, int readBack, const CCopySettings& settings,
                         const std::function<bool()>& stop, CCopyProgress* progress);
