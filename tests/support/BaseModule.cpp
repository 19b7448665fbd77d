// The in-process module library of the serve tests and the serve fuzzer:
// the frame's base module behind the four entry points, in its own object
// so that a user of the file-backed loader alone needs no frame code.
#include "frame/ExtensionModule.h"
#include "tests/support/BaseModule.h"

namespace korvex_test {

namespace {

class CBaseModule : public CExtensionModule {};

CIExtensionModule* g_BaseModule = nullptr;

int BaseCreate(void** module) {
  g_BaseModule = new CBaseModule;
  *module = g_BaseModule;
  return 1;
}
int BaseDelete(void*) {
  delete g_BaseModule;
  g_BaseModule = nullptr;
  return 1;
}
const char* BaseName() { return "EM_BASE"; }
unsigned int BaseSetup(unsigned int action) { return action + 100; }

}  // namespace

CModuleLibrary& BaseModuleLibrary() {
  static CModuleLibrary library;
  static const bool filled = [] {
    library.Create = &BaseCreate;
    library.Delete = &BaseDelete;
    library.GetModuleName = &BaseName;
    library.SetupAction = &BaseSetup;
    return true;
  }();
  static_cast<void>(filled);
  return library;
}

}  // namespace korvex_test
