// Tests of the BMC stand-in that need root: a BMC directory on a small
// tmpfs, to see the free-space check and a full file system. They skip
// themselves without root or where tmpfs cannot be mounted.
#include "host/emhost/bmc/BmcFileTransfer.h"
#include "tests/support/TempFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using korvex_test::Entries;

class EmHostSmallBmc : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to mount a tmpfs";
    m_Temp = std::make_unique<korvex_test::CTempDir>("emhost-root");
    m_Dir = m_Temp->Path();
    m_Bmc = m_Dir + "/bmc";
    ASSERT_EQ(::mkdir(m_Bmc.c_str(), 0755), 0);
    if (::mount("tmpfs", m_Bmc.c_str(), "tmpfs", 0, "size=256k") != 0) {
      GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    m_Temp->AddMount(m_Bmc);
  }

  void Source(std::size_t size) {
    std::ofstream out(m_Dir + "/src", std::ios::binary);
    out << std::string(size, 'z');
  }
  unsigned int Transfer(const std::string& name) {
    CBmcFileTransfer transfer(m_Bmc);
    CBmcTransferRequest request;
    request.m_FileType = 2;
    request.m_LocalPath = m_Dir + "/src";
    request.m_BmcName = name;
    CBmcTransferJob job;
    transfer.Run(request, job);
    return job.m_Status;
  }

  // Copies src as "late.zip" with settings while, once the temporary copy
  // exists (the free-space check is behind it), a file fills the tmpfs.
  void TransferWhileFilling(const CCopySettings& settings, CBmcTransferJob& job) {
    CBmcFileTransfer transfer(m_Bmc, settings);
    CBmcTransferRequest request;
    request.m_FileType = 2;
    request.m_LocalPath = m_Dir + "/src";
    request.m_BmcName = "late.zip";
    std::thread filler([&] {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (Entries(m_Bmc).empty() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      std::ofstream out(m_Bmc + "/filler", std::ios::binary);
      out << std::string(256 * 1024, 'f');
    });
    transfer.Run(request, job);
    filler.join();
  }

  std::unique_ptr<korvex_test::CTempDir> m_Temp;  // made once the test runs as root
  std::string m_Dir;
  std::string m_Bmc;
};

}  // namespace

TEST_F(EmHostSmallBmc, FileLargerThanTheFreeSpaceIsRefusedBeforeCopying) {
  Source(512 * 1024);
  EXPECT_EQ(Transfer("big.zip"), static_cast<unsigned int>(korvex::kStatusBmcNoSpace));
  EXPECT_TRUE(Entries(m_Bmc).empty());
}

TEST_F(EmHostSmallBmc, FileThatFitsIsStored) {
  Source(64 * 1024);
  EXPECT_EQ(Transfer("fits.zip"), static_cast<unsigned int>(korvex::kStatusDone));
  EXPECT_EQ(Entries(m_Bmc), (std::set<std::string>{"fits.zip", "fits.zip.sha256"}));
}

TEST_F(EmHostSmallBmc, FileSystemFillingUpDuringTheCopyLeavesNothingBehind) {
  // The free-space check passes, then something else takes the space while
  // the copy is under way (slowed down by the test throttle: 25 chunks with
  // 50 ms after each): the write fails with ENOSPC, the answer is "no
  // space", and the temporary file is gone.
  Source(100 * 1024);
  CBmcTransferJob job;
  TransferWhileFilling(CCopySettings{4096, 2, 50}, job);
  EXPECT_EQ(job.m_Status, static_cast<unsigned int>(korvex::kStatusBmcNoSpace));
  EXPECT_EQ(Entries(m_Bmc), (std::set<std::string>{"filler"}));
}

TEST_F(EmHostSmallBmc, FileSystemFillingUpDuringADirectCopyLeavesNothingBehind) {
  // As above, with the copy written with direct I/O (where the tmpfs offers it).
  const int probe =
      ::open((m_Bmc + "/probe").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_DIRECT | O_CLOEXEC, 0600);
  if (probe < 0) GTEST_SKIP() << "no direct I/O on tmpfs here";
  ::close(probe);
  ::unlink((m_Bmc + "/probe").c_str());
  Source(100 * 1024);
  CBmcTransferJob job;
  TransferWhileFilling(CCopySettings{4096, 2, 50, false, 4096, 2, 0}, job);
  EXPECT_EQ(job.m_Status, static_cast<unsigned int>(korvex::kStatusBmcNoSpace)) << job.m_Message;
  EXPECT_EQ(Entries(m_Bmc), (std::set<std::string>{"filler"}));
}
