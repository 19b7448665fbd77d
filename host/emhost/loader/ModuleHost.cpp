// dlopen of the module library and the module instance's life.
#include "host/emhost/loader/ModuleHost.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <sys/stat.h>
#include <unistd.h>

bool CModuleLibrary::Load(const std::string& path, std::string* error) {
  m_Path = path;
  dlerror();
  m_pHandle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_pHandle == nullptr) {
    const char* why = dlerror();
    if (error != nullptr) *error = why != nullptr ? why : ("cannot load " + path);
    return false;
  }
  auto find = [&](const char* name) -> void* {
    dlerror();
    void* symbol = ::dlsym(m_pHandle, name);
    if (symbol == nullptr && error != nullptr) {
      *error = path + ": no entry point " + name;
    }
    return symbol;
  };
  Create = reinterpret_cast<EM_CreateFn>(find("EM_Create"));
  if (Create == nullptr) return false;
  Delete = reinterpret_cast<EM_DeleteFn>(find("EM_Delete"));
  if (Delete == nullptr) return false;
  GetModuleName = reinterpret_cast<EM_GetModuleNameFn>(find("EM_GetModuleName"));
  if (GetModuleName == nullptr) return false;
  SetupAction = reinterpret_cast<EM_SetupActionFn>(find("EM_SetupAction"));
  return SetupAction != nullptr;
}

std::vector<std::string> ModuleSearchPaths(const std::string& executableDir) {
  // Both locations come from the build: where the install rules put the
  // module and where the build tree keeps it, each seen from the bin
  // directory (or absolute, when the install rules name an absolute
  // directory), and the library's file name.
  const auto in = [&executableDir](const std::string& dir) {
    // An empty directory is em-host's own (module installed beside it).
    if (dir.empty()) return executableDir + "/" + KORVEX_MODULE_FILE_NAME;
    const std::string base = dir.front() == '/' ? dir : executableDir + "/" + dir;
    return base + "/" + KORVEX_MODULE_FILE_NAME;
  };
  return {in(KORVEX_INSTALLED_MODULE_DIR), in(KORVEX_BUILD_MODULE_DIR)};
}

std::string ExecutableDir() {
  char self[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return ".";
  const std::string exe(self, static_cast<std::size_t>(length));
  const std::size_t slash = exe.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : exe.substr(0, slash);
}

std::string DefaultModulePath(const std::string& executableDir) {
  const std::vector<std::string> candidates = ModuleSearchPaths(executableDir);
  for (const std::string& path : candidates) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
  }
  return candidates.front();
}

CModuleInstance::~CModuleInstance() { StopAndDelete(); }

bool CModuleInstance::Create(std::string* error) {
  void* module = nullptr;
  int created = 0;
  try {
    created = m_Library.Create(&module);
  } catch (const std::exception& e) {
    if (error != nullptr) *error = std::string("EM_Create threw: ") + e.what();
    return false;
  } catch (...) {
    if (error != nullptr) *error = "EM_Create threw";
    return false;
  }
  if (created == 0 || module == nullptr) {
    if (error != nullptr) *error = "EM_Create made no module instance";
    return false;
  }
  m_pModule = static_cast<CIExtensionModule*>(module);
  return true;
}

int CModuleInstance::ReadProperties() {
  std::memset(&m_Properties, 0, sizeof(m_Properties));
  m_Properties.m_RecordSize = sizeof(m_Properties);
  return m_pModule->GetProperties(m_Properties);
}

int CModuleInstance::Start(CISwitch* pSwitch, unsigned int moduleId) {
  m_StartCalled = true;
  return m_pModule->Start(pSwitch, moduleId);
}

int CModuleInstance::Stop() { return m_pModule->Stop(); }

void CModuleInstance::StopAndDelete() {
  if (m_pModule == nullptr) return;
  if (m_StartCalled) m_pModule->Stop();
  Delete();
}

int CModuleInstance::Delete() {
  if (m_pModule == nullptr) return 0;
  m_pModule = nullptr;
  return m_Library.Delete(nullptr);
}
