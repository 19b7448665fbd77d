// The verified copy behind the stand-in BMC: one pass over the source at
// close to the disk's speed, the SHA-256 digest computed on the way, and
// after the fsync every byte of the copy read back and compared with the
// source.
//
// Two threads share the work: the calling thread reads a chunk of the
// source into a buffer, hands the buffer to a hashing thread and writes the
// same buffer into the copy, so the digest is of exactly the bytes written.
// Where the copy's file system offers it the writes use direct I/O
// (O_DIRECT): the buffer goes to the device without a second copy into the
// page cache and without the kernel's write-back threads, which on this
// two-CPU machine would compete with the digest (docs/PERFORMANCE.md). The
// tail that does not fill a 4096-byte block is written through the page
// cache. Then the copy is fsync'ed (data, size and the device's write
// cache).
//
// The verification runs after that fsync: chunk by chunk the copy is read
// back and compared byte for byte with the source read again.
// - With direct I/O (the default where the file system offers it, or a
//   readBack descriptor opened with O_DIRECT) the read-back bypasses the
//   page cache and returns what the device holds. This proves the device
//   (on a virtual machine: the virtual disk, whatever caches the host puts
//   under it) returns the source's bytes for the whole copy, and, as the
//   digest is of the bytes that were written, that the recorded digest is
//   the copy's. A source changed during the copy shows as a mismatch.
// - Without direct I/O (a file system without it) the read-back comes from
//   the page cache: it proves the kernel holds for the copy the source's
//   bytes (no short or misplaced write, nothing else wrote the file) and
//   the fsync's success says it wrote them to the device without an error
//   it noticed; not that the device returns them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

// How a copy is made. The defaults are the production values.
struct CCopySettings {
  // Bytes read, digested, written and read back at a time; rounded up to a
  // multiple of 4096 (direct I/O needs aligned offsets). Large, so that
  // each direct write keeps the device busy.
  std::size_t m_ChunkBytes = 8u << 20;
  // Chunk buffers: the reading and writing run this many chunks ahead of
  // the digest at most. One more chunk buffer is used by the read-back.
  unsigned int m_Window = 4;
  // A pause after every chunk, in milliseconds: a slow disk, for tests and
  // demonstrations. 0 in production.
  unsigned int m_PauseMs = 0;
  // For CBmcFileTransfer: read the copy back through a second descriptor
  // opened with O_DIRECT even where the copy itself could not be written
  // with direct I/O. The engine reads back from the device by itself
  // wherever it writes with direct I/O.
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
  bool m_FromDevice = false;  // kDone: the read-back used direct I/O (the device)
  std::string m_Why;          // not kDone: what failed, in words
};

// Copies source (read from offset 0 to its end) into target (an empty file
// opened for reading and writing; its O_DIRECT flag is set while the copy
// runs) and verifies it after fsync'ing it. readBack is a descriptor of the
// same file opened with O_DIRECT, or -1 (the target itself: with direct I/O
// where it could be set, else from the page cache). stop is called after
// every chunk copied and every chunk verified; when it returns true the
// copy ends with kStopped. progress, when given, is updated after every
// chunk.
CCopyResult CopyVerified(int source, int target, int readBack, const CCopySettings& settings,
                         const std::function<bool()>& stop, CCopyProgress* progress);
