// What em-host tells the operator about the Korvex tool.
#include "host/emhost/cli/ToolReport.h"

#include "util/Fd.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <pwd.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kTailBytes = 8192;

std::string ReadProcFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string UserOf(unsigned int pid) {
  struct stat status {};
  if (::stat(("/proc/" + std::to_string(pid)).c_str(), &status) != 0) return "unknown";
  passwd entry{};
  passwd* found = nullptr;
  char buffer[1024];
  if (::getpwuid_r(status.st_uid, &entry, buffer, sizeof(buffer), &found) == 0 &&
      found != nullptr) {
    return found->pw_name;
  }
  return "uid " + std::to_string(status.st_uid);
}

std::string SignalName(int signo) {
  const char* abbreviation = ::sigabbrev_np(signo);
  return abbreviation != nullptr ? std::string("SIG") + abbreviation
                                 : "signal " + std::to_string(signo);
}

}  // namespace

std::string DefaultToolLogPath(const std::string& toolRoot) {
  std::string root = toolRoot;
  if (!root.empty() && root.back() != '/') root += '/';
  return root + "Korvex.output.log";
}

namespace {

// The last kTailBytes of the regular file fd, from a line start when the
// file is longer.
std::string Tail(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return std::string();
  const off_t from = status.st_size > static_cast<off_t>(kTailBytes)
                         ? status.st_size - static_cast<off_t>(kTailBytes)
                         : 0;
  std::string text(kTailBytes, '\0');
  const ssize_t got = KORVEX_RETRY(::pread(fd, &text[0], kTailBytes, from));
  text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
  if (from > 0) {  // the first line is probably cut
    const std::size_t newline = text.find('\n');
    text.erase(0, newline == std::string::npos ? text.size() : newline + 1);
  }
  return text;
}

}  // namespace

std::vector<std::string> LastLogLines(const std::string& path, std::size_t maxLines) {
  std::vector<std::string> lines;
  const korvex::CFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return lines;
  std::istringstream stream(Tail(fd.Get()));
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  if (lines.size() > maxLines)
    lines.erase(lines.begin(), lines.end() - static_cast<long>(maxLines));
  return lines;
}

std::string DescribeToolRun(const halvane::CToolRun& run) {
  using Result = halvane::CToolRun::Result;
  switch (run.m_Result) {
    case Result::kNone:
      return "Korvex was not run";
    case Result::kRunning:
      return "Korvex is still running";
    case Result::kExited:
      return "Korvex exited with exit code " + std::to_string(run.m_Code);
    case Result::kSignaled:
      return "Korvex was killed by " + SignalName(run.m_Code);
    case Result::kTerminated:
      return "Korvex was stopped by em-host (its processes got SIGTERM, then SIGKILL)";
    case Result::kNotFound:
      return "Korvex could not run: " + run.m_Path + " was not found";
    case Result::kNotExecutable:
      return "Korvex could not run: " + run.m_Path + " is not executable (" + run.m_Why + ")";
    case Result::kRefused:
      return "Korvex was not run: " + run.m_Why +
             "; as root em-host runs only a tool that only root can change";
    case Result::kFailed:
      return "Korvex could not run: " + run.m_Why;
  }
  return "Korvex ended in an unknown way";
}

std::string DescribeProcess(unsigned int pid) {
  const std::string base = "/proc/" + std::to_string(pid);
  char exe[PATH_MAX];
  const ssize_t length = ::readlink((base + "/exe").c_str(), exe, sizeof(exe) - 1);
  std::string program = length > 0 ? std::string(exe, static_cast<std::size_t>(length)) : "";
  std::string commandLine = ReadProcFile(base + "/cmdline");
  std::replace(commandLine.begin(), commandLine.end(), '\0', ' ');
  while (!commandLine.empty() && commandLine.back() == ' ') commandLine.pop_back();
  // A script runs as its interpreter: the command line names the script.
  const std::size_t firstEnd = commandLine.find(' ');
  std::string rest = firstEnd == std::string::npos ? "" : commandLine.substr(firstEnd + 1);
  if (program.empty()) program = commandLine.substr(0, firstEnd);
  std::string text = "pid " + std::to_string(pid) + ", user " + UserOf(pid);
  if (!program.empty()) text += ", " + program;
  if (!rest.empty()) text += " " + rest;
  return text;
}

CCollectionLock::Result CCollectionLock::Acquire(const std::string& toolRoot, std::string* error) {
  if (m_Fd) return Result::kHeld;
  korvex::CFd fd(::open(toolRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) {
    if (error != nullptr) *error = "cannot open " + toolRoot + ": " + std::strerror(errno);
    return Result::kFailed;
  }
  if (KORVEX_RETRY(::flock(fd.Get(), LOCK_EX | LOCK_NB)) != 0) {
    const int why = errno;
    if (why == EWOULDBLOCK) return Result::kBusy;
    if (error != nullptr) *error = "cannot lock " + toolRoot + ": " + std::strerror(why);
    return Result::kFailed;
  }
  m_Fd = std::move(fd);
  return Result::kHeld;
}
