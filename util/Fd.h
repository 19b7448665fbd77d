// Descriptor ownership and the retry of interrupted system calls.
//
// CFd owns one descriptor and closes it exactly once; KORVEX_RETRY repeats a
// call that failed with EINTR. close() is never retried: Linux releases the
// descriptor even when close reports EINTR, and a retry could close a
// descriptor another thread has just been given. WriteAll and ReadExactly
// move a whole buffer through short transfers and interruptions; they are
// plain system calls, so a forked child may use them before it execs.
#pragma once

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace korvex {

// Calls call() again for as long as it fails with EINTR; returns its last
// result (errno as the call left it).
template <typename Call>
auto RetryOnEintr(Call&& call) -> decltype(call()) {
  for (;;) {
    auto result = call();
    if (!(result == -1 && errno == EINTR)) return result;
  }
}

// KORVEX_RETRY(::read(fd, buffer, size)): the expression, again on EINTR.
#define KORVEX_RETRY(expression) ::korvex::RetryOnEintr([&]() { return (expression); })

// Calls move(done) - one read or write of the bytes from done on - until
// size bytes have moved; false (errno set) when a call fails or moves
// nothing (end of file). Async-signal-safe.
template <typename Move>
bool MoveAll(std::size_t size, Move&& move) noexcept {
  for (std::size_t done = 0; done < size;) {
    const ssize_t moved = RetryOnEintr([&] { return move(done); });
    if (moved <= 0) return false;
    done += static_cast<std::size_t>(moved);
  }
  return true;
}

// Writes all size bytes; false (errno set) when a write fails.
inline bool WriteAll(int fd, const void* data, std::size_t size) noexcept {
  const char* bytes = static_cast<const char*>(data);
  return MoveAll(size, [&](std::size_t done) { return ::write(fd, bytes + done, size - done); });
}

// Reads exactly size bytes; false at end of file before that or on an
// error (errno set).
inline bool ReadExactly(int fd, void* data, std::size_t size) noexcept {
  char* bytes = static_cast<char*>(data);
  return MoveAll(size, [&](std::size_t done) { return ::read(fd, bytes + done, size - done); });
}

// Appends what fd yields up to its end to text, stopping early once text is
// longer than limit (the caller tells the two apart by the size). 0, or the
// errno of the read that failed; what came before the failure is kept.
inline int ReadToEnd(int fd, std::string& text, std::size_t limit) {
  char buffer[4096];
  while (text.size() <= limit) {
    const ssize_t got = KORVEX_RETRY(::read(fd, buffer, sizeof(buffer)));
    if (got < 0) return errno;
    if (got == 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return 0;
}

// One owned file descriptor (-1: none).
class CFd {
 public:
  CFd() noexcept = default;
  explicit CFd(int fd) noexcept : m_Fd(fd) {}
  ~CFd() { Reset(); }
  CFd(CFd&& other) noexcept : m_Fd(other.Release()) {}
  CFd& operator=(CFd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;

  int Get() const noexcept { return m_Fd; }
  bool Valid() const noexcept { return m_Fd >= 0; }
  explicit operator bool() const noexcept { return Valid(); }

  // Gives the descriptor up without closing it.
  int Release() noexcept { return std::exchange(m_Fd, -1); }
  // Closes the descriptor held (once, errors ignored: nothing is left to
  // do about them) and takes fd.
  void Reset(int fd = -1) noexcept {
    const int old = std::exchange(m_Fd, fd);
    if (old >= 0) ::close(old);
  }

 private:
  int m_Fd = -1;
};

// The two owned ends of a pipe.
struct CPipeEnds {
  CFd m_Read;
  CFd m_Write;
};

// Makes a pipe (close-on-exec unless flags say otherwise); false (errno
// set, ends untouched) when none could be made. Async-signal-safe.
inline bool OpenPipe(CPipeEnds& ends, int flags = O_CLOEXEC) noexcept {
  int fds[2];
  if (::pipe2(fds, flags) != 0) return false;
  ends.m_Read.Reset(fds[0]);
  ends.m_Write.Reset(fds[1]);
  return true;
}

}  // namespace korvex
