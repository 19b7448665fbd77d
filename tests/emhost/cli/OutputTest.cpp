// What em-host shows while a command waits: the progress line on a
// terminal, state lines and heartbeats on a pipe, and the texts of a
// transfer's progress.
#include "host/emhost/cli/Output.h"
#include "host/emhost/cli/ProgressText.h"

#include <gtest/gtest.h>

#include <string>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(EmHostProgressText, BytesShareAndRate) {
  EXPECT_EQ(ByteCount(512), "512 B");
  EXPECT_EQ(ByteCount(3u << 20), "3.0 MiB");
  EXPECT_EQ(TransferProgressText(1u << 30, 4ull << 30, 2.0), "1.0 GiB of 4.0 GiB (25 %), 537 MB/s");
  EXPECT_EQ(TransferProgressText(100, 0, 0.0), "100 B");
}

TEST(EmHostProgress, OnAPipeAHeartbeatComesEveryPeriodAndNotMoreOften) {
  CProgress progress(10, false);
  CaptureStdout();
  progress.Tick("create: Korvex is running", 0.5, "not shown on a pipe");
  progress.Tick("create: Korvex is running", 9.9);
  progress.Tick("create: Korvex is running", 10.2);
  progress.Tick("create: Korvex is running", 12.0);
  // A wait that slept past two periods gives one line, then the next period.
  progress.Tick("create: Korvex is running", 31.0);
  progress.Tick("create: Korvex is running", 39.0);
  progress.Tick("create: Korvex is running", 40.0);
  progress.State("create: done");
  EXPECT_EQ(GetCapturedStdout(),
            "create: Korvex is running, 10 s\n"
            "create: Korvex is running, 31 s\n"
            "create: Korvex is running, 40 s\n"
            "create: done\n");
}

TEST(EmHostProgress, OnAPipeWithoutHeartbeatOnlyStatesAreWritten) {
  CProgress progress(0, false);
  CaptureStdout();
  progress.Tick("x", 100.0);
  progress.State("state");
  progress.ClearTick();
  EXPECT_EQ(GetCapturedStdout(), "state\n");
}

TEST(EmHostProgress, OnATerminalOneLineIsRewrittenAndClearedBeforeAState) {
  CProgress progress(10, true);
  CaptureStdout();
  progress.Tick("transfer: transferring", 3.7, "1.0 MiB");
  progress.Tick("transfer: transferring", 4.2);
  progress.State("transfer: finished");
  progress.ClearTick();  // nothing left to clear
  EXPECT_EQ(GetCapturedStdout(),
            "\rtransfer: transferring... 3 s, 1.0 MiB\033[K"
            "\rtransfer: transferring... 4 s\033[K"
            "\r\033[K"
            "transfer: finished\n");
}

TEST(EmHostProgress, DurationsHaveOneDecimal) {
  EXPECT_EQ(DurationText(0.0), "0.0 s");
  EXPECT_EQ(DurationText(12.345), "12.3 s");
  EXPECT_EQ(DurationText(59.96), "60.0 s");
}
