// Process lookups and bounded waits for the test suites.
#include "tests/support/Processes.h"

#include "tests/support/TempFiles.h"

#include <cstdlib>
#include <dirent.h>
#include <signal.h>
#include <thread>

namespace korvex_test {

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

char ProcessState(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return 0;
  return stat[close + 2];
}

bool ProcessRuns(pid_t pid) {
  const char state = ProcessState(pid);
  return state != 0 && state != 'Z' && state != 'X' && state != 'x';
}

namespace {

bool NamedAndUnder(const std::string& pid, const std::string& name, const std::string& under) {
  const std::string base = "/proc/" + pid;
  std::string comm = ReadFile(base + "/comm");
  if (!comm.empty() && comm.back() == '\n') comm.pop_back();
  if (comm != name.substr(0, 15)) return false;
  return under.empty() || ReadFile(base + "/cmdline").find(under) != std::string::npos;
}

}  // namespace

std::vector<pid_t> ProcessesNamed(const std::string& name, const std::string& under) {
  std::vector<pid_t> found;
  for (const std::string& entry : Entries("/proc")) {
    char* end = nullptr;
    const long pid = std::strtol(entry.c_str(), &end, 10);
    if (pid <= 0 || *end != '\0') continue;
    if (NamedAndUnder(entry, name, under) && ProcessRuns(static_cast<pid_t>(pid))) {
      found.push_back(static_cast<pid_t>(pid));
    }
  }
  return found;
}

bool WaitUntilNoneNamed(const std::string& name, std::chrono::milliseconds timeout,
                        const std::string& under) {
  return WaitUntil([&] { return ProcessesNamed(name, under).empty(); }, timeout);
}

void KillAllNamed(const std::string& name, const std::string& under) {
  if (under.empty()) return;
  for (const pid_t pid : ProcessesNamed(name, under)) ::kill(pid, SIGKILL);
}

}  // namespace korvex_test
