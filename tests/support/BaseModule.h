// The in-process module library of the serve session's tests and fuzzer
// (library korvex_test_base_module).
#pragma once

#include "host/emhost/loader/ModuleHost.h"

namespace korvex_test {

// A module library without a file, for sessions that need a module but no
// tool: its instances are the frame's base module (every request answered in
// place with status 1, nothing queued), its name is "EM_BASE" and its setup
// action answers action + 100, so that a test sees the call arrive. One
// instance at a time.
CModuleLibrary& BaseModuleLibrary();

}  // namespace korvex_test
