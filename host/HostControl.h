// Control surface of the stand-alone host services (target halvane_host):
// what em-host and the tests use to set up trace sinks, the configuration
// store and the thread monitor. Modules never include this header; they see
// only frame/HostServices.h.
#pragma once

#include <string>

namespace halvane {

// ----- trace (the global Debug object) -------------------------------------
// Where CDebug::Print writes. Each Print call's text is written whole, with
// nothing added, and never interleaved with another thread's.
void TraceToStderr();
bool TraceToFile(const char* path, std::string* error = nullptr);  // appends
void TraceToMemory();                 // captured until TakeTrace
std::string TakeTrace();              // the captured text, cleared afterwards
void SetTraceLevel(unsigned int maxLevel);  // Print calls above maxLevel are dropped
void SetTraceSwitch(bool on);         // Debug.m_TraceSwitch
void SetDebugName(const char* name);  // Debug.m_DebugName

// ----- configuration store (CRegistry) --------------------------------------
// The store is process-wide. Key paths use "\\" separators and are compared
// case-sensitively. A product's root key is "SOFTWARE\\Halvane\\<product>";
// GetProductRegistryRoot finds it when that key or any key below it exists.
void ClearRegistry();
void SetRegistryValue(const std::string& keyPath, const std::string& valueName,
                      const std::string& value);
// Replaces the store with the contents of a registry file (format in
// docs/REGISTRY.md). On failure the store is unchanged and *error names the
// file and line.
bool LoadRegistryFile(const char* path, std::string* error);
std::string ProductRootKey(const char* productName);

// ----- thread monitor (pThreadMonitor, ThreadCounter) ----------------------
void InstallThreadMonitor();  // a fresh, empty table
void RemoveThreadMonitor();   // pThreadMonitor becomes null; the table is freed

}  // namespace halvane
