// The library's four C entry points and the one module instance they manage.
#include "frame/ModuleEntry.h"

#include "module/EM_KORVEX.h"
#include "module/ModuleConstants.h"

// Zero-initialised storage: null until EM_Create. No lock and no reference
// count: the host calls the entry points one at a time on its own thread.
CIExtensionModule* pModuleInstance;

extern "C" {

int EM_Create(void** module) {
  if (module == nullptr) {
    return 0;  // nowhere to hand the instance to: make none
  }
  // If allocation or construction throws, new frees the storage and the
  // exception goes to the host with both pointers untouched.
  EM_KORVEX* instance = new EM_KORVEX();
  // A second EM_Create overwrites the slot; the host creates the module once.
  pModuleInstance = static_cast<CIExtensionModule*>(instance);
  *module = static_cast<CIExtensionModule*>(instance);
  return 1;
}

int EM_Delete(void* /*ignored*/) {
  if (pModuleInstance == nullptr) {
    return 0;
  }
  delete pModuleInstance;
  pModuleInstance = nullptr;
  return 1;
}

const char* EM_GetModuleName(void) { return korvex::kModuleName; }

unsigned int EM_SetupAction(unsigned int action) { return EM_KORVEX::SetupAction(action); }

}  // extern "C"
