// The configuration-store lookup of the tool's installation root, with the
// module's trace lines (left out when the caller asks for silence).
#include "module/ToolRoot.h"

#include "frame/Trace.h"
#include "module/Protocol.h"

// The module's guard, plus the caller's wish for silence.
#define TOOL_ROOT_TRACE(level, ...)        \
  do {                                     \
    if (trace == ToolRootTrace::kTraced) { \
      KORVEX_TRACE((level), __VA_ARGS__);  \
    }                                      \
  } while (0)

namespace korvex {
namespace {

// Reads "FileRoot" from the opened setup key into root; 1 read, 0 not.
int QueryFileRoot(CRegistry& registry, std::string& root, ToolRootTrace trace) {
  TOOL_ROOT_TRACE(4, "\nEM_KORVEX (GetPath) :   query Korvex file root value: \"%s\"...",
                  kFileRootValue);
  if (registry.QueryValue(root, kFileRootValue, nullptr) != 0) {
    TOOL_ROOT_TRACE(1,
                    "\nEM_KORVEX (GetPath) : ## ERROR 0x%08X! Could not query registry value "
                    "\"%s\" in Korvex setup key!",
                    registry.m_LastError, kFileRootValue);
    return 0;
  }
  // Callers append file names directly, so the root always ends in "/".
  if (root.empty() || root.back() != '/') {
    root += '/';
  }
  TOOL_ROOT_TRACE(3, "\nEM_KORVEX (GetPath) : Korvex base dir:   \"%s\"", root.c_str());
  return 1;
}

}  // namespace

int LookUpToolRoot(std::string& root, ToolRootTrace trace) {
  std::string key;
  if (CRegistry::GetProductRegistryRoot(key, kProductName) == 0) {
    TOOL_ROOT_TRACE(2,
                    "\nEM_KORVEX (GetPath) : ## Korvex pointer key not existing - no Halvane "
                    "component installed.");
    return 0;
  }
  TOOL_ROOT_TRACE(3, "\nEM_KORVEX (GetPath) : Found Korvex root registry key: \"%s\"", key.c_str());
  key += "\\";
  key += kSetupKey;

  CRegistry registry;
  TOOL_ROOT_TRACE(4, "\nEM_KORVEX (GetPath) :   open Korvex setup key: \"%s\"...", key.c_str());
  if (registry.Open(key.c_str(), CRegistry::MLocalMachine, -1) != 0) {
    // The object's own last-error word tells more than Open's result.
    TOOL_ROOT_TRACE(1,
                    "\nEM_KORVEX (GetPath) : ## ERROR 0x%08X! Could not open registry key \"%s\"!",
                    registry.m_LastError, key.c_str());
    return 0;
  }
  const int result = QueryFileRoot(registry, root, trace);
  registry.Close();
  return result;
}

}  // namespace korvex
