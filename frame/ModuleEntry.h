// The four C entry points a host finds by name after dlopen of a module
// library, and their pointer types for hosts that look them up.
#pragma once

#define KORVEX_EXPORT __attribute__((visibility("default")))

extern "C" {
// Creates the module instance and stores it in *module; 1 done, 0 not.
KORVEX_EXPORT int EM_Create(void** module);
// Deletes the instance; 1 deleted, 0 there was none. The argument is ignored.
KORVEX_EXPORT int EM_Delete(void* ignored);
// The module's name; valid for the life of the loaded library.
KORVEX_EXPORT const char* EM_GetModuleName(void);
// Runs a setup action (4: clean up archives); needs no instance.
KORVEX_EXPORT unsigned int EM_SetupAction(unsigned int action);
}

using EM_CreateFn = int (*)(void**);
using EM_DeleteFn = int (*)(void*);
using EM_GetModuleNameFn = const char* (*)(void);
using EM_SetupActionFn = unsigned int (*)(unsigned int);
