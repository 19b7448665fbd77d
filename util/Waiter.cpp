// The wake event (eventfd) and the poll behind CWaiter.
#include "util/Waiter.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>

namespace korvex {

CWakeEvent::CWakeEvent() : m_Fd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!m_Fd) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void CWakeEvent::Notify() noexcept {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, which leaves it readable anyway.
  (void)KORVEX_RETRY(::write(m_Fd.Get(), &one, sizeof(one)));
}

void CWakeEvent::Drain() noexcept {
  std::uint64_t count = 0;
  // EAGAIN: another waiter took it first; nothing is pending.
  (void)KORVEX_RETRY(::read(m_Fd.Get(), &count, sizeof(count)));
}

namespace {

// Milliseconds for poll: rounded up, so that the wait never ends before
// the deadline; -1 for none.
int PollTimeout(CWaiter::Clock::time_point deadline) {
  if (deadline == CWaiter::Clock::time_point::max()) return -1;
  const auto left = deadline - CWaiter::Clock::now();
  if (left <= CWaiter::Clock::duration::zero()) return 0;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::min<long long>(ms, 24LL * 3600 * 1000));
}

}  // namespace

CWaiter::Woken CWaiter::WaitUntil(Clock::time_point deadline) const {
  for (;;) {
    pollfd fds[2] = {{m_SignalFd, POLLIN, 0}, {m_WakeFd, m_WakeEvents, 0}};
    const int timeout = PollTimeout(deadline);
    const int ready = ::poll(fds, 2, timeout);
    if (ready < 0 && errno != EINTR) return Woken::kError;
    if ((fds[0].revents & POLLIN) != 0) return Woken::kSignal;
    if ((fds[1].revents & m_WakeEvents) != 0) return Woken::kWake;
    // Readable neither, yet ready: an error condition on a descriptor.
    if (ready > 0) return Woken::kError;
    if (ready == 0 && Clock::now() >= deadline) return Woken::kDeadline;
    // EINTR, or a poll that woke a little early: again with the time left.
  }
}

}  // namespace korvex
