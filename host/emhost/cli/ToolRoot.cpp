// Where em-host finds the Korvex installation root: the module's own lookup
// in the configuration store, run without its trace lines (em-host's
// lookups are its own, not the module's, and must not show in its trace).
#include "host/emhost/cli/EmHost.h"
#include "module/ToolRoot.h"

bool ConfiguredToolRoot(std::string& root) {
  std::string found;
  if (korvex::LookUpToolRoot(found, korvex::ToolRootTrace::kSilent) == 0) return false;
  root = found;  // untouched when nothing is configured
  return true;
}
