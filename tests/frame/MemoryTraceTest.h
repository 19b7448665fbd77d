// The fixture of the frame suites that read the trace: it goes to memory
// with the switch on at level 5, and each test starts and leaves with an
// empty trace and those settings, whatever it changed.
#pragma once

#include "host/HostControl.h"

#include <gtest/gtest.h>

namespace korvex_test {

class MemoryTraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    halvane::TraceToMemory();
    Reset();
  }
  void TearDown() override { Reset(); }

 private:
  static void Reset() {
    halvane::SetTraceSwitch(true);
    halvane::SetTraceLevel(5);
    halvane::TakeTrace();
  }
};

}  // namespace korvex_test
