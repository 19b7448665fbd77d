// Where em-host finds the Korvex installation root: the configuration
// store's value, read the way the module reads it.
#include "frame/ExtensionModule.h"
#include "host/emhost/cli/EmHost.h"
#include "module/Protocol.h"

bool ConfiguredToolRoot(std::string& root) {
  std::string key;
  if (CRegistry::GetProductRegistryRoot(key, korvex::kProductName) == 0) return false;
  key += std::string("\\") + korvex::kSetupKey;
  CRegistry registry;
  if (registry.Open(key.c_str(), CRegistry::MLocalMachine, -1) != 0) return false;
  std::string value;
  const bool read = registry.QueryValue(value, korvex::kFileRootValue, nullptr) == 0;
  registry.Close();
  if (!read) return false;
  if (value.empty() || value.back() != '/') value += '/';
  root = value;
  return true;
}
