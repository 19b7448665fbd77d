// Helpers for the stand-alone host suites: the shared scratch directory,
// files, fake tools and bounded waits, and one reading of a pid another
// thread publishes.
#pragma once

#include "tests/support/Processes.h"
#include "tests/support/TempFiles.h"

#include <cstddef>
#include <filesystem>
#include <system_error>

namespace hosttest {

using korvex_test::CTempDir;
using korvex_test::Exists;
using korvex_test::ProcessRuns;
using korvex_test::ProcessState;
using korvex_test::ReadFile;
using korvex_test::WaitUntil;
using korvex_test::WriteFile;
using korvex_test::WriteScript;

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
