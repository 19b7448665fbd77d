// The verified copy behind the stand-in BMC: one pass over the source at
// close to the disk's speed, the SHA-256 digest computed on the way, and
// every byte of the copy read back after it was written out and compared
// with the source bytes that went into the digest.
//
// Two threads share the work: the calling thread reads a chunk into a
// buffer and hands it to a hashing thread, writes it and reads it back. How
// it is written and where the read-back comes from depends on the target
// descriptor and readBack:
// - buffered (target without O_DIRECT, readBack -1; the BMC stand-in's way
//   for files under CCopySettings::m_DirectFromBytes): the chunk is written
//   into the page cache, its write-out started at once (sync_file_range),
//   and a few chunks later it is read back from the page cache. That proves
//   that the kernel holds for the copy exactly the bytes that were digested
//   (no short or misplaced write, nothing else wrote the file), and the
//   final fsync's success says the kernel wrote them to the device without
//   an error it noticed. It costs one memory-speed read.
// - buffered, read back from the device (readBack a descriptor of the same
//   file opened with O_DIRECT): each chunk is waited for until written out,
//   then read with direct I/O. That doubles the device's work.
// - direct (target opened with O_DIRECT, or switched to it with fcntl; the
//   stand-in's way for large files): each chunk goes from the buffer that
//   was digested straight to the device, is read back from the device with
//   direct I/O at once (from readBack, or from target when readBack is -1)
//   and compared. That proves that the device (or its own cache) returns
//   for the copy exactly the bytes that were digested; the final fsync
//   makes the file's size and blocks durable. It skips the copy of the
//   data into the page cache, which for a large file costs more CPU than
//   the digest, at the price of a second pass over the device
//   (docs/PERFORMANCE.md, figure 7).
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
  // page cache, whatever the file's size; see above for what each proves
  // and costs. The BMC stand-in then makes a direct copy.
  bool m_ReadBackFromDevice = false;
  // Bytes per chunk and chunks held when the copy is written with direct
  // I/O: large chunks, since direct reads of 32 MiB ran at twice the speed
  // of 8 MiB ones.
  std::size_t m_DirectChunkBytes = 32u << 20;
  // Files of at least this size are copied with direct I/O by the BMC
  // stand-in. Below it, cp + sync fills the page cache cheaply and the
  // buffered copy kept pace with it (512 MiB: 0.99 times), while the direct
  // copy's second pass over the device cost 1.5 to 2 times; at 4 GiB the
  // fill of fresh page cache dominates (docs/PERFORMANCE.md, figure 7).
  std::uint64_t m_DirectFromBytes = 1ull << 30;
  unsigned int m_DirectWindow = 4;
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
// (an empty file opened for reading and writing, with O_DIRECT for a direct
// copy) and verifies it; target is fsync'ed (in a buffered copy before the
// last chunks are read back). readBack is a descriptor of the same file
// opened with O_DIRECT (read back from the device), or -1 (the page cache
// in a buffered copy, target itself in a direct one). stop is called after
// every chunk; when it returns true the copy ends with kStopped. progress,
// when given, is updated after every chunk.
CCopyResult CopyVerified(int source, int target, int readBack, const CCopySettings& settings,
                         const std::function<bool()>& stop, CCopyProgress* progress);
