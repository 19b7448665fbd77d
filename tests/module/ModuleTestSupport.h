// Helpers shared by the module's test suites (scratch directories and files
// come from tests/support): fake Korvex tools written as shell scripts,
// FIFOs by which a fake tool tells the test that it runs, the configuration
// store entry of the tool's root, and trace comparison helpers.
#pragma once

#include "frame/HostServices.h"
#include "host/HostControl.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/TempFiles.h"
#include "util/Fd.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace korvex_test {

// The configuration store path that records the tool's root.
inline const char* SetupKeyPath() { return "SOFTWARE\\Halvane\\Korvex\\Setup"; }

// Records root as the tool's installation root, replacing the whole store.
inline void SetToolRoot(const std::string& root) {
  halvane::ClearRegistry();
  halvane::SetRegistryValue(SetupKeyPath(), "FileRoot", root);
}

// Writes the fake tool "Korvex" into dir: a shell script with the given body.
inline void WriteTool(const std::string& dir, const std::string& body) {
  WriteFile(dir + "/Korvex", "#!/bin/sh\n" + body + "\n", 0755);
}

// A FIFO the test reads and a fake tool writes a line into. The test opens
// its end without blocking first; the tool's write then never blocks, and
// the test waits for the line with poll (a real wait on the tool, with an
// upper bound so a broken module fails the test instead of hanging it).
class CFifo {
 public:
  explicit CFifo(std::string path) : m_Path(std::move(path)) {
    if (mkfifo(m_Path.c_str(), 0600) == 0) m_Fd.Reset(OpenReadEnd());
  }
  CFifo(const CFifo&) = delete;
  CFifo& operator=(const CFifo&) = delete;

  bool Valid() const { return m_Fd.Valid(); }
  const std::string& Path() const { return m_Path; }

  // Waits up to timeoutMs for one line ("\n"-terminated); false on time-out.
  bool ReadLine(std::string& line, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
      const std::size_t end = m_Buffer.find('\n');
      if (end != std::string::npos) {
        line = m_Buffer.substr(0, end);
        m_Buffer.erase(0, end + 1);
        return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                            deadline - std::chrono::steady_clock::now())
                            .count();
      if (left <= 0) return false;
      struct pollfd pfd = {m_Fd.Get(), POLLIN, 0};
      const int ready = poll(&pfd, 1, static_cast<int>(left));
      if (ready < 0 && errno == EINTR) continue;  // the time left is taken again
      if (ready <= 0) return false;
      char chunk[256];
      const ssize_t n = read(m_Fd.Get(), chunk, sizeof(chunk));
      if (n > 0) {
        m_Buffer.append(chunk, static_cast<std::size_t>(n));
      } else if (n == 0) {
        // The writer closed before a whole line came. Reopen, so that poll
        // waits for the next writer instead of reporting the hang-up again.
        m_Fd.Reset(OpenReadEnd());
        if (!m_Fd) return false;
      }
    }
  }

 private:
  int OpenReadEnd() const { return open(m_Path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC); }

  std::string m_Path;
  korvex::CFd m_Fd;
  std::string m_Buffer;
};

// A process the test starts itself: a script named "Korvex" that reports its
// pid through a FIFO and then sleeps. It runs in its own process group,
// which goes (killed and reaped) with the object.
class CForeignTool {
 public:
  explicit CForeignTool(const std::string& dir)
      : m_Fifo(MadeDirectory(dir) + "/foreign-started"), m_Tool(StartedTool(dir, m_Fifo.Path())) {}

  // True once the script runs (it has written its pid).
  bool WaitRunning(int timeoutMs) {
    std::string line;
    return m_Fifo.Valid() && m_Fifo.ReadLine(line, timeoutMs) &&
           line == std::to_string(m_Tool.Pid());
  }

 private:
  static std::string MadeDirectory(const std::string& dir) {
    mkdir(dir.c_str(), 0755);
    return dir;
  }
  static CChildProcess StartedTool(const std::string& dir, const std::string& fifo) {
    WriteTool(dir, "echo $$ > '" + fifo + "'\nsleep 60");
    CChildOptions options;
    options.m_OwnGroup = true;
    return CChildProcess({dir + "/Korvex"}, {}, options);
  }

  CFifo m_Fifo;
  CChildProcess m_Tool;
};

// Whether a process named "Korvex" runs anywhere on the machine. Tests of
// this component hold the korvex_process lock against each other, but a
// shared machine may run someone else's; the module would then rightly
// answer 5, so tests that run the tool skip instead of failing.
inline bool ForeignKorvexRuns() {
  unsigned int processId = 0;
  return CProcess::FindProcess(processId, "Korvex");
}

// Whether a process with this id is still listed under /proc (zombies too).
inline bool ProcessListed(long pid) { return pid > 0 && Exists("/proc/" + std::to_string(pid)); }

// Ids of the live processes whose process group is pgid. Zombies do not
// count: a killed grandchild stays listed until init gets round to reaping it.
inline std::vector<long> ProcessGroupMembers(long pgid) {
  std::vector<long> members;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return members;
  while (struct dirent* entry = readdir(proc)) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0') continue;
    const std::string stat = ReadFile("/proc/" + std::string(entry->d_name) + "/stat");
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream fields(stat.substr(close + 2));
    std::string state;
    long ppid = 0, group = 0;
    fields >> state >> ppid >> group;
    if (group == pgid && state != "Z" && state != "X") members.push_back(pid);
  }
  closedir(proc);
  return members;
}

// Waits until no live process of group pgid is left, up to timeoutMs. A
// member killed a moment ago may still be on its way out; its pidfd turns
// readable once it has exited, so this waits on the processes themselves.
inline std::vector<long> GroupMembersAfterExit(long pgid, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  std::vector<long> alive;
  for (long pid : ProcessGroupMembers(pgid)) {
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0));
    if (fd < 0) continue;  // gone already
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    struct pollfd pfd = {fd, POLLIN, 0};
    const int ready = poll(&pfd, 1, left > 0 ? static_cast<int>(left) : 0);
    close(fd);
    if (ready <= 0) alive.push_back(pid);
  }
  return alive;
}

// Checks that the given pieces occur in text in this order, each after the
// end of the one before. Used where other threads' lines may come between
// (the worker thread traces asynchronously); each piece is a whole line.
inline ::testing::AssertionResult ContainsInOrder(const std::string& text,
                                                  const std::vector<std::string>& pieces) {
  std::size_t from = 0;
  for (const std::string& piece : pieces) {
    const std::size_t at = text.find(piece, from);
    if (at == std::string::npos) {
      return ::testing::AssertionFailure()
             << "missing (in order) the line [" << piece << "]\nin the trace:\n"
             << text;
    }
    from = at + piece.size();
  }
  return ::testing::AssertionSuccess();
}

// How often piece occurs in text.
inline std::size_t CountOf(const std::string& text, const std::string& piece) {
  std::size_t count = 0;
  for (std::size_t at = text.find(piece); at != std::string::npos;
       at = text.find(piece, at + piece.size())) {
    ++count;
  }
  return count;
}

// A trace line together with the level it is written at.
struct CLine {
  unsigned int m_Level;
  std::string m_Text;
};

// The trace a scenario must produce when the host passes levels up to
// maxLevel: the lines of that level or lower, in order.
inline std::string TraceUpTo(const std::vector<CLine>& lines, unsigned int maxLevel) {
  std::string text;
  for (const CLine& line : lines) {
    if (line.m_Level <= maxLevel) text += line.m_Text;
  }
  return text;
}

// Lines of destroying an EM_KORVEX whose worker does not run.
inline std::vector<CLine> DestructionLines() {
  return {{1, "\nEM_KORVEX           : CLASS DESTROYED!"},
          {4, "\nCTaskSerializer     : TerminateSerialization!"},
          {5, "\nCTaskSerializer     :   terminated"},
          {4, "\n\nCTaskSerializer     : Class destroyed!"}};
}

}  // namespace korvex_test

namespace korvex_test {

// A FIFO a fake tool blocks on ("read x < hold") until the test lets it go.
// The test keeps the FIFO open for reading and writing, so that the tool's
// open never blocks and the test never waits for the tool to open it.
class CHold {
 public:
  explicit CHold(std::string path) : m_Path(std::move(path)) {
    if (mkfifo(m_Path.c_str(), 0600) == 0) m_Fd.Reset(open(m_Path.c_str(), O_RDWR | O_CLOEXEC));
  }
  CHold(const CHold&) = delete;
  CHold& operator=(const CHold&) = delete;

  bool Valid() const { return m_Fd.Valid(); }
  const std::string& Path() const { return m_Path; }
  // Lets count blocked reads go on.
  bool Release(int count = 1) {
    for (int i = 0; i < count; ++i) {
      if (KORVEX_RETRY(write(m_Fd.Get(), "go\n", 3)) != 3) return false;
    }
    return true;
  }

 private:
  std::string m_Path;
  korvex::CFd m_Fd;
};

}  // namespace korvex_test
