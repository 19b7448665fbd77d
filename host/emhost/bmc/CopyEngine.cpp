// The verified copy: reading, digesting on a second thread, writing with an
// early start of the write-out, and the read-back of every chunk.
#include "host/emhost/bmc/CopyEngine.h"

#include "host/emhost/bmc/Sha256.h"
#include "util/Fd.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// Direct I/O wants buffers, offsets and lengths aligned to the logical
// block size; 4096 covers every device in use.
constexpr std::size_t kAlign = 4096;

std::size_t RoundUp(std::size_t bytes) { return (bytes + kAlign - 1) / kAlign * kAlign; }

struct CFreeAligned {
  void operator()(unsigned char* data) const { std::free(data); }
};
using CBuffer = std::unique_ptr<unsigned char, CFreeAligned>;

CBuffer Allocate(std::size_t bytes) {
  void* data = std::aligned_alloc(kAlign, RoundUp(bytes));
  if (data == nullptr) throw std::bad_alloc();
  return CBuffer(static_cast<unsigned char*>(data));
}

// Digests chunks in the order they were read, on its own thread, while the
// copying thread writes and reads back. A chunk's buffer is not reused
// before WaitDigested says it has been digested.
class CHasher {
 public:
  CHasher() : m_Thread([this] { Loop(); }) {}
  ~CHasher() {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_End = true;
      m_Queue.clear();  // an abandoned copy: nothing more to digest
    }
    m_Changed.notify_all();
    m_Thread.join();
  }
  CHasher(const CHasher&) = delete;
  CHasher& operator=(const CHasher&) = delete;

  void Post(const unsigned char* data, std::size_t length) {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_Queue.emplace_back(data, length);
    }
    m_Changed.notify_all();
  }
  void WaitDigested(std::uint64_t chunks) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Changed.wait(lock, [&] { return m_Digested >= chunks; });
  }
  // The digest of everything posted; waits for it. Throws what the digest
  // threw.
  std::string Final(std::uint64_t chunks) {
    WaitDigested(chunks);
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Error) std::rethrow_exception(m_Error);
    return m_Digest.FinalHex();
  }

 private:
  void Loop() {
    std::unique_lock<std::mutex> lock(m_Mutex);
    for (;;) {
      m_Changed.wait(lock, [&] { return m_End || !m_Queue.empty(); });
      if (m_Queue.empty()) return;
      const std::pair<const unsigned char*, std::size_t> chunk = m_Queue.front();
      m_Queue.pop_front();
      lock.unlock();
      std::exception_ptr error;
      try {
        m_Digest.Update(chunk.first, chunk.second);
      } catch (...) {
        error = std::current_exception();
      }
      lock.lock();
      if (error && !m_Error) m_Error = error;
      ++m_Digested;
      m_Changed.notify_all();
    }
  }

  std::mutex m_Mutex;
  std::condition_variable m_Changed;
  std::deque<std::pair<const unsigned char*, std::size_t>> m_Queue;
  std::uint64_t m_Digested = 0;
  bool m_End = false;
  std::exception_ptr m_Error;
  CSha256 m_Digest;      // only the hashing thread touches it until Final
  std::thread m_Thread;  // last: starts once everything above exists
};

// Reads up to length bytes at offset; fewer only at the end of the file.
bool ReadFull(int fd, unsigned char* data, std::size_t length, std::uint64_t offset,
              std::size_t& got) {
  got = 0;
  while (got < length) {
    const ssize_t done =
        KORVEX_RETRY(::pread(fd, data + got, length - got, static_cast<off_t>(offset + got)));
    if (done < 0) return false;
    if (done == 0) break;
    got += static_cast<std::size_t>(done);
  }
  return true;
}

// The most bytes handed to one write. Measured on ext4: buffered writes of
// 4 MiB at a time ran at a tenth of the speed of 64-256 KiB writes (the
// kernel's copy into the page cache runs out of the CPU caches).
constexpr std::size_t kWritePiece = 128u << 10;

bool WriteFull(int fd, const unsigned char* data, std::size_t length, std::uint64_t offset) {
  std::size_t put = 0;
  while (put < length) {
    const std::size_t piece = std::min(length - put, kWritePiece);
    const ssize_t done =
        KORVEX_RETRY(::pwrite(fd, data + put, piece, static_cast<off_t>(offset + put)));
    if (done < 0) return false;
    put += static_cast<std::size_t>(done);
  }
  return true;
}

CopyOutcome WriteOutcome(int error) {
  return error == ENOSPC || error == EDQUOT ? CopyOutcome::kNoSpace : CopyOutcome::kWriteFailed;
}

// sync_file_range is a hint on file systems that cannot do it (EINVAL,
// ESPIPE); a real write-out error (EIO, ENOSPC) counts.
bool WriteOutFailed(int result) {
  return result != 0 && errno != EINVAL && errno != ESPIPE && errno != ENOSYS;
}

// What both copies share: a ring of chunk buffers filled from the source
// and digested on the hashing thread, the stop and pause between chunks,
// the comparison of a chunk read back, and the result. A copy says what
// happens before each chunk (Prepare), to each chunk once read and posted
// for digesting (Store) and after the last one (Finish).
class CChunkedCopy {
 public:
  CChunkedCopy(int source, int target, std::size_t chunkBytes, unsigned int window,
               unsigned int pauseMs)
      : m_Source(source),
        m_Target(target),
        m_Chunk(RoundUp(std::max<std::size_t>(chunkBytes, 1))),
        m_Window(std::max(window, 1u)),
        m_PauseMs(pauseMs),
        m_Ring(m_Window),
        m_Check(Allocate(m_Chunk)) {}
  virtual ~CChunkedCopy() = default;
  CChunkedCopy(const CChunkedCopy&) = delete;
  CChunkedCopy& operator=(const CChunkedCopy&) = delete;

  CCopyResult Run(const std::function<bool()>& stop, CCopyProgress* progress) {
    ::posix_fadvise(m_Source, 0, 0, POSIX_FADV_SEQUENTIAL);
    for (;;) {
      // A buffer is reused only once its chunk is digested.
      if (m_Chunks >= m_Window && !Prepare()) return m_Result;
      std::size_t length = 0;
      if (!NextChunk(length)) return m_Result;
      if (progress != nullptr) progress->m_Copied.store(m_Bytes, std::memory_order_relaxed);
      if (length < m_Chunk) break;  // the end of the source
      if (m_PauseMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(m_PauseMs));
      if (stop && stop()) {
        Fail(CopyOutcome::kStopped, "stopped");
        return m_Result;
      }
    }
    if (!Finish()) return m_Result;
    m_Result.m_Sha256 = m_Hasher.Final(m_Chunks);
    m_Result.m_Outcome = CopyOutcome::kDone;
    m_Result.m_Bytes = m_Bytes;
    m_Result.m_FromDevice = FromDevice();
    return m_Result;
  }

 protected:
  // Before a buffer of the ring is filled again (once the ring is full).
  virtual bool Prepare() = 0;
  // Writes (and may verify) the chunk in data, length bytes at m_Bytes, of
  // ring slot slot; it is already posted for digesting.
  virtual bool Store(unsigned char* data, std::size_t length, std::size_t slot) = 0;
  // After the last chunk: the write-out and what is left to verify.
  virtual bool Finish() = 0;
  virtual bool FromDevice() const = 0;

  // got bytes read back into m_Check at offset against the length bytes of
  // the source that were digested.
  bool Compare(const unsigned char* data, std::size_t length, std::size_t got,
               std::uint64_t offset) {
    if (got < length || std::memcmp(m_Check.get(), data, length) != 0) {
      return Fail(CopyOutcome::kMismatch,
                  "the copy read back differs from the source at offset " + std::to_string(offset));
    }
    return true;
  }
  bool SyncTarget() {
    if (KORVEX_RETRY(::fsync(m_Target)) == 0) return true;
    return Fail(WriteOutcome(errno), Errno("cannot sync the copy"));
  }
  // Records the failure; false, for the caller to return.
  bool Fail(CopyOutcome outcome, const std::string& why) {
    m_Result.m_Outcome = outcome;
    m_Result.m_Why = why;
    m_Result.m_Bytes = m_Bytes;
    return false;
  }
  static std::string Errno(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
  }

  const int m_Source;
  const int m_Target;
  const std::size_t m_Chunk;
  const unsigned int m_Window;
  const unsigned int m_PauseMs;  // a rest after every chunk (a slow disk, in tests)
  std::vector<CBuffer> m_Ring;
  CBuffer m_Check;             // a chunk read back
  std::uint64_t m_Chunks = 0;  // chunks written
  std::uint64_t m_Bytes = 0;   // bytes written
  CCopyResult m_Result;
  // Last: destroyed first, so that it stops reading the buffers above
  // before they go.
  CHasher m_Hasher;

 private:
  // Reads the next chunk into its ring slot, posts it for digesting and
  // stores it; length 0 at the end.
  bool NextChunk(std::size_t& length) {
    const std::size_t slot = static_cast<std::size_t>(m_Chunks % m_Window);
    if (!m_Ring[slot]) m_Ring[slot] = Allocate(m_Chunk);
    unsigned char* data = m_Ring[slot].get();
    if (!ReadFull(m_Source, data, m_Chunk, m_Bytes, length)) {
      return Fail(CopyOutcome::kReadFailed, Errno("cannot read the source"));
    }
    if (length == 0) return true;
    m_Hasher.Post(data, length);
    if (!Store(data, length, slot)) return false;
    m_Bytes += length;
    ++m_Chunks;
    return true;
  }
};

// The copy through the page cache: buffered writes with an early start of
// their write-out, each chunk read back a window later (from the page
// cache, or from the device where readBack is a direct-I/O descriptor).
class CVerifiedCopy final : public CChunkedCopy {
 public:
  CVerifiedCopy(int source, int target, int readBack, const CCopySettings& settings)
      : CChunkedCopy(source, target, settings.m_ChunkBytes, settings.m_Window, settings.m_PauseMs),
        m_ReadBack(readBack),
        m_Lengths(m_Window, 0) {}

 private:
  bool Prepare() override {
    if (!Verify(m_Chunks - m_Window)) return false;
    m_Hasher.WaitDigested(m_Chunks - m_Window + 1);
    return true;
  }

  bool Store(unsigned char* data, std::size_t length, std::size_t slot) override {
    if (!WriteFull(m_Target, data, length, m_Bytes)) {
      return Fail(WriteOutcome(errno), Errno("cannot write the copy"));
    }
    // Start the write-out now, so the device works while the next chunks
    // are copied and the final fsync finds little left to do.
    ::sync_file_range(m_Target, static_cast<off_t>(m_Bytes), static_cast<off_t>(length),
                      SYNC_FILE_RANGE_WRITE);
    m_Lengths[slot] = length;
    return true;
  }

  bool Finish() override {
    if (!SyncTarget()) return false;
    for (std::uint64_t k = m_Chunks > m_Window ? m_Chunks - m_Window : 0; k < m_Chunks; ++k) {
      if (!Verify(k)) return false;
    }
    return true;
  }

  bool FromDevice() const override { return m_ReadBack >= 0; }

  // Reads chunk k back and compares it with the bytes that were digested.
  // From the device: after waiting for the chunk's write-out, with direct
  // I/O. From the page cache: what the kernel holds for the file.
  bool Verify(std::uint64_t k) {
    const std::size_t slot = static_cast<std::size_t>(k % m_Window);
    const std::size_t length = m_Lengths[slot];
    const off_t offset = static_cast<off_t>(k * m_Chunk);
    if (m_ReadBack >= 0 &&
        WriteOutFailed(::sync_file_range(
            m_Target, offset, static_cast<off_t>(length),
            SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER))) {
      return Fail(WriteOutcome(errno), Errno("cannot write the copy out"));
    }
    std::size_t got = 0;
    if (!ReadBack(offset, length, got)) {
      return Fail(CopyOutcome::kWriteFailed, Errno("cannot read the copy back"));
    }
    return Compare(m_Ring[slot].get(), length, got, static_cast<std::uint64_t>(offset));
  }

  bool ReadBack(off_t offset, std::size_t length, std::size_t& got) {
    if (m_ReadBack >= 0) {
      // One call: a direct read returns the whole aligned range up to the
      // end of the file, and a second call would start at an unaligned offset.
      const ssize_t done =
          KORVEX_RETRY(::pread(m_ReadBack, m_Check.get(), RoundUp(length), offset));
      if (done >= 0) {
        got = static_cast<std::size_t>(done);
        return true;
      }
      if (errno != EINVAL) return false;
      m_ReadBack = -1;  // direct I/O refused after all: the page cache it is
    }
    return ReadFull(m_Target, m_Check.get(), length, static_cast<std::uint64_t>(offset), got);
  }

  int m_ReadBack;
  std::vector<std::size_t> m_Lengths;
};

// The copy with direct I/O both ways: each chunk is read from the source
// into a buffer, digested from that buffer on the hashing thread, written
// from the same buffer straight to the device and read back from the
// device at once (on this machine a read-back on a third thread, beside
// the later writes, was no faster: the device shares its bandwidth). There
// is no copy into the page cache, which for a large file costs the copying
// thread more CPU than the digest costs the other.
class CDirectCopy final : public CChunkedCopy {
 public:
  CDirectCopy(int source, int target, int readBack, const CCopySettings& settings)
      : CChunkedCopy(source, target, settings.m_DirectChunkBytes, settings.m_DirectWindow,
                     settings.m_PauseMs),
        m_ReadBack(readBack) {}

 private:
  bool Prepare() override {
    m_Hasher.WaitDigested(m_Chunks - m_Window + 1);
    return true;
  }

  bool Store(unsigned char* data, std::size_t length, std::size_t) override {
    // Direct writes take whole blocks: the last one is padded with zeros
    // (cut off again before the final sync).
    const std::size_t aligned = RoundUp(length);
    std::memset(data + length, 0, aligned - length);
    if (!WriteDirect(data, aligned, m_Bytes)) {
      return Fail(WriteOutcome(errno), Errno("cannot write the copy"));
    }
    return Verify(data, length, m_Bytes);
  }

  bool Finish() override {
    m_Hasher.WaitDigested(m_Chunks);
    // The last chunk went out padded to whole blocks; cut the padding off
    // before the file is synced.
    if (::ftruncate(m_Target, static_cast<off_t>(m_Bytes)) != 0) {
      return Fail(WriteOutcome(errno), Errno("cannot set the size of the copy"));
    }
    return SyncTarget();
  }

  bool FromDevice() const override { return true; }

  // Reads the chunk just written back from the device and compares it with
  // the bytes that were digested. One read: a direct read returns the whole
  // aligned range up to the end of the file, and a second call would start
  // at an unaligned offset.
  bool Verify(const unsigned char* data, std::size_t length, std::uint64_t offset) {
    const ssize_t done = KORVEX_RETRY(
        ::pread(m_ReadBack, m_Check.get(), RoundUp(length), static_cast<off_t>(offset)));
    if (done < 0) return Fail(CopyOutcome::kWriteFailed, Errno("cannot read the copy back"));
    return Compare(data, length, static_cast<std::size_t>(done), offset);
  }

  // A direct write may come back short (a full disk); the rest is retried
  // from the next block, and the retry reports the error.
  bool WriteDirect(const unsigned char* data, std::size_t length, std::uint64_t offset) {
    std::size_t put = 0;
    while (put < length) {
      const ssize_t done = KORVEX_RETRY(
          ::pwrite(m_Target, data + put, length - put, static_cast<off_t>(offset + put)));
      if (done < 0) return false;
      if (done == 0 || static_cast<std::size_t>(done) % kAlign != 0) {
        errno = ENOSPC;
        return false;
      }
      put += static_cast<std::size_t>(done);
    }
    return true;
  }

  const int m_ReadBack;
};

}  // namespace

CCopyResult CopyVerified(int source, int target, int readBack, const CCopySettings& settings,
                         const std::function<bool()>& stop, CCopyProgress* progress) {
  const int flags = ::fcntl(target, F_GETFL);
  if (flags >= 0 && (flags & O_DIRECT) != 0) {
    CDirectCopy copy(source, target, readBack >= 0 ? readBack : target, settings);
    return copy.Run(stop, progress);
  }
  CVerifiedCopy copy(source, target, readBack, settings);
  return copy.Run(stop, progress);
}
