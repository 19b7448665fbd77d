// signalfd-based signal delivery for em-host's main thread.
#include "host/emhost/serve/Signals.h"

#include "util/Fd.h"

#include <cerrno>
#include <cstring>
#include <signal.h>
#include <stdexcept>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

CSignalWatch::CSignalWatch(const int* first, const int* last) {
  sigset_t set;
  sigemptyset(&set);
  // By default every signal whose default would end em-host at once and
  // leave the tool's tree without its owner: each ends the command cleanly
  // instead.
  for (const int* signo = first; signo != last; ++signo) sigaddset(&set, *signo);
  sigaddset(&set, SIGPIPE);
  if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
    throw std::runtime_error("cannot block signals");
  }
  sigdelset(&set, SIGPIPE);
  m_Fd.Reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!m_Fd) throw std::runtime_error(std::string("signalfd: ") + std::strerror(errno));
}

int CSignalWatch::Take() {
  signalfd_siginfo info;
  const ssize_t got = KORVEX_RETRY(::read(m_Fd.Get(), &info, sizeof(info)));
  return got == static_cast<ssize_t>(sizeof(info)) ? static_cast<int>(info.ssi_signo) : 0;
}
