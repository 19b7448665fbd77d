// One loaded module library per path and process.
#include "tests/support/PluginLoader.h"

#include <map>
#include <memory>
#include <mutex>

namespace korvex_test {

namespace {

struct CLoaded {
  CModuleLibrary m_Library;
  bool m_Ok = false;
  std::string m_Error;
};

}  // namespace

CModuleLibrary* SharedModuleLibrary(const std::string& path, std::string* error) {
  static std::mutex mutex;
  static std::map<std::string, std::unique_ptr<CLoaded>> loaded;
  std::lock_guard<std::mutex> lock(mutex);
  std::unique_ptr<CLoaded>& entry = loaded[path];
  if (!entry) {
    entry = std::make_unique<CLoaded>();
    entry->m_Ok = entry->m_Library.Load(path, &entry->m_Error);
  }
  if (!entry->m_Ok && error != nullptr) *error = entry->m_Error;
  return entry->m_Ok ? &entry->m_Library : nullptr;
}

}  // namespace korvex_test
