// Loading a module library and driving its life in the host's order:
// EM_GetModuleName, EM_Create, GetProperties, SetServerCabinetNumber, Start,
// requests, Stop, EM_Delete. EM_SetupAction needs no instance.
#pragma once

#include "frame/ExtensionModule.h"
#include "frame/ModuleEntry.h"

#include <string>
#include <vector>

// The module library opened with dlopen and its four entry points.
class CModuleLibrary {
 public:
  CModuleLibrary() = default;
  // The library stays mapped until the process ends: a module may leave a
  // thread or an exit handler behind that still points into its code.
  ~CModuleLibrary() = default;
  CModuleLibrary(const CModuleLibrary&) = delete;
  CModuleLibrary& operator=(const CModuleLibrary&) = delete;

  // Loads path with every undefined symbol resolved now (a host service the
  // module needs and em-host lacks shows here, not on first use). False
  // with *error set when the library or an entry point is missing.
  bool Load(const std::string& path, std::string* error);

  const std::string& Path() const { return m_Path; }
  EM_CreateFn Create = nullptr;
  EM_DeleteFn Delete = nullptr;
  EM_GetModuleNameFn GetModuleName = nullptr;
  EM_SetupActionFn SetupAction = nullptr;

 private:
  void* m_pHandle = nullptr;
  std::string m_Path;
};

// Where em-host looks for the module when no --module is given, relative to
// the directory of its own executable, in order: the private library
// directory of an installed tree (the package's /usr/lib/em-korvex beside
// /usr/bin), then the build tree's ../lib. Relative locations, so that an
// installed tree works at any prefix and a build tree wherever it lies.
std::vector<std::string> ModuleSearchPaths(const std::string& executableDir);

// The directory of the running executable (/proc/self/exe); "." when it
// cannot be read.
std::string ExecutableDir();

// The first of ModuleSearchPaths(executableDir) that is a file, resolved
// (messages read better without "bin/.."); when none is, the installed
// location, so that a broken installation names the file it lacks.
std::string DefaultModulePath(const std::string& executableDir = ExecutableDir());

// One module instance.
class CModuleInstance {
 public:
  explicit CModuleInstance(CModuleLibrary& library) : m_Library(library) {}
  ~CModuleInstance();  // Delete() if still created
  CModuleInstance(const CModuleInstance&) = delete;
  CModuleInstance& operator=(const CModuleInstance&) = delete;

  // EM_Create; false with *error when no instance was made (or it threw).
  bool Create(std::string* error);
  // GetProperties on a zeroed record of the full size; the record is kept.
  int ReadProperties();
  const _ExtensionModuleProperties& Properties() const { return m_Properties; }
  // Start; remembered, so that StopAndDelete stops what was started.
  int Start(CISwitch* pSwitch, unsigned int moduleId);
  int Stop();
  // Stop (when Start was ever called) and EM_Delete; safe to call twice.
  void StopAndDelete();
  int Delete();

  CIExtensionModule& Module() { return *m_pModule; }
  bool Created() const { return m_pModule != nullptr; }

 private:
  CModuleLibrary& m_Library;
  CIExtensionModule* m_pModule = nullptr;
  bool m_StartCalled = false;
  _ExtensionModuleProperties m_Properties{};
};
