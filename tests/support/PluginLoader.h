// The module library for tests and benchmarks, loaded through em-host's own
// loader (dlopen and the four entry points), once per process and path and
// kept, as a host keeps its modules.
#pragma once

#include "host/emhost/loader/ModuleHost.h"

#include <string>

namespace korvex_test {

// The library at path; nullptr with *error set when it cannot be loaded
// (the same answer on every later call).
CModuleLibrary* SharedModuleLibrary(const std::string& path, std::string* error);

}  // namespace korvex_test
