// Where the Korvex tool is installed, as the configuration store records it.
// The module and em-host both ask through this one function, so that both
// read the same key and value and agree on the form of the root.
#pragma once

#include <string>

namespace korvex {

enum class ToolRootTrace {
  kTraced,  // the module's lines, through the host's debug facility
  kSilent,  // no lines: em-host asks for its own messages, not the module's trace
};

// The tool's installation root from the product key's "Setup" key, value
// "FileRoot", always ending in "/"; 1 found, 0 not. Written into root as the
// store hands it over, so on a failed query root holds what the store left.
int LookUpToolRoot(std::string& root, ToolRootTrace trace = ToolRootTrace::kTraced);

}  // namespace korvex
