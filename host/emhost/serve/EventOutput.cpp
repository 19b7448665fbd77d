// serve's output stream, which never blocks em-host on a stalled reader.
#include "host/emhost/serve/EventOutput.h"

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

ssize_t CookieWrite(void* cookie, const char* data, size_t size) {
  return static_cast<ssize_t>(static_cast<CEventOutput*>(cookie)->Write(data, size));
}

}  // namespace

CEventOutput::CEventOutput(int fd, int signalFd) : m_Fd(fd), m_SignalFd(signalFd) {
  struct stat status {};
  if (::fstat(fd, &status) == 0) {
    if (S_ISSOCK(status.st_mode)) {
      m_Socket = true;  // send() takes MSG_DONTWAIT per call
    } else if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
      // A pipe or terminal is opened anew, non-blocking: setting O_NONBLOCK
      // on the inherited descriptor would change it for the shell and every
      // other process that shares it. A regular file never stalls and is
      // written as it is (opening it anew would lose O_APPEND).
      const std::string self = "/proc/self/fd/" + std::to_string(fd);
      const int copy = ::open(self.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
      if (copy >= 0) {
        m_Fd = copy;
        m_OwnFd = true;
      }
    }
  }
  cookie_io_functions_t functions{};
  functions.write = CookieWrite;
  m_Stream = ::fopencookie(this, "w", functions);
}

CEventOutput::~CEventOutput() {
  if (m_Stream != nullptr) std::fclose(m_Stream);
  if (m_OwnFd) ::close(m_Fd);
}

long CEventOutput::Write(const char* data, unsigned long size) {
  unsigned long done = 0;
  while (done < size) {
    const ssize_t written =
        m_Socket ? ::send(m_Fd, data + done, size - done, MSG_DONTWAIT | MSG_NOSIGNAL)
                 : ::write(m_Fd, data + done, size - done);
    if (written > 0) {
      done += static_cast<unsigned long>(written);
      continue;
    }
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno != EAGAIN) return -1;  // EPIPE: the reader has gone
    pollfd fds[2] = {{m_Fd, POLLOUT, 0}, {m_SignalFd, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return -1;
    if ((fds[1].revents & POLLIN) != 0) return -1;  // a signal waits: give the output up
    if ((fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) return -1;
  }
  return static_cast<long>(size);
}
