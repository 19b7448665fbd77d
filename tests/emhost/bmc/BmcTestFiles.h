// What the BMC stand-in's suites share: a scratch directory on a disk (not
// a tmpfs, so that direct I/O is tried for real where the disk offers it),
// source bytes that differ from chunk to chunk, the wait for a copy under
// way, and a transfer run on the file-transfer module alone.
#pragma once

#include "host/emhost/bmc/BmcFileTransfer.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace korvex_test {

using Clock = std::chrono::steady_clock;

class CBmcScratchDir : public CTempDir {
 public:
  CBmcScratchDir() : CTempDir("emhost-bmc", "/var/tmp") {}
};

// Bytes that differ from chunk to chunk, so a chunk written at the wrong
// offset shows.
inline std::string Pattern(std::size_t size) {
  std::string data(size, '\0');
  unsigned int state = 12345u;
  for (char& c : data) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>(state >> 24);
  }
  return data;
}

inline double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Waits up to 10 s for a hidden temporary file in dir: a copy under way.
inline bool CopyUnderWay(const std::string& dir) {
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    for (const std::string& name : Entries(dir)) {
      if (!name.empty() && name[0] == '.') return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

// One request carried out by transfer; the job's status.
inline unsigned int RunTransfer(const CBmcFileTransfer& transfer, const std::string& local,
                                const std::string& bmc, unsigned int timeout,
                                CBmcTransferJob& job) {
  CBmcTransferRequest request;
  request.m_FileType = korvex::kKorvexFileType;
  request.m_LocalPath = local;
  request.m_BmcName = bmc;
  request.m_TimeoutSec = timeout;
  transfer.Run(request, job);
  EXPECT_TRUE(job.m_Finished);
  return job.m_Status;
}

}  // namespace korvex_test
