// Descriptor ownership and the retry of interrupted system calls.
//
// CFd owns one descriptor and closes it exactly once; KORVEX_RETRY repeats a
// call that failed with EINTR. close() is never retried: Linux releases the
// descriptor even when close reports EINTR, and a retry could close a
// descriptor another thread has just been given.
#pragma once

#include <cerrno>
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

}  // namespace korvex
