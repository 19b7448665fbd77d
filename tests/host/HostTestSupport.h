// Helpers for the stand-alone host suites: a private temporary directory
// (everything a test writes stays inside it), fake tools written as shell
// scripts, and bounded waits for things that happen on other threads or in
// other processes.
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace hosttest {

class CTempDir {
 public:
  CTempDir() {
    char pattern[] = "/tmp/halvane_host_test_XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (made != nullptr) m_Path = made;
  }
  ~CTempDir() {
    if (m_Path.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
  }
  CTempDir(const CTempDir&) = delete;
  CTempDir& operator=(const CTempDir&) = delete;

  bool Valid() const { return !m_Path.empty(); }
  const std::string& Path() const { return m_Path; }
  std::string operator/(const std::string& name) const { return m_Path + "/" + name; }

 private:
  std::string m_Path;
};

inline void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  ::chmod(path.c_str(), mode);
}

// A fake tool: an executable /bin/sh script with the given body.
inline void WriteScript(const std::string& path, const std::string& body) {
  WriteFile(path, "#!/bin/sh\n" + body + "\n", 0755);
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline bool Exists(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0;
}

// Polls condition every few milliseconds until it holds or limitMs passed.
// Only for observing other processes and threads in tests; the code under
// test never polls.
inline bool WaitUntil(const std::function<bool()>& condition, int limitMs = 5000) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// The state letter of /proc/<pid>/stat, or 0 when the process is gone.
inline char ProcessState(int pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return 0;
  return stat[close + 2];
}

// Alive and not a zombie.
inline bool ProcessRuns(int pid) {
  const char state = ProcessState(pid);
  return state != 0 && state != 'Z' && state != 'X';
}

inline unsigned int LoadPid(unsigned int& pid) { return __atomic_load_n(&pid, __ATOMIC_ACQUIRE); }

// How many descriptors this process has open now.
inline std::size_t OpenDescriptorCount() {
  std::size_t count = 0;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd", error);
       !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
    ++count;
  }
  return count;  // the iterator's own descriptor is closed again by now
}

}  // namespace hosttest
