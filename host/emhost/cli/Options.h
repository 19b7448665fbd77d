// em-host's command line: global options, one command and its arguments.
#pragma once

#include "host/emhost/bmc/HtiStandIn.h"

#include <string>
#include <vector>

enum class EmCommand {
  kNone,
  kHelp,
  kQuery,
  kCreate,
  kTransfer,
  kCollect,
  kCleanup,
  kInfo,
  kServe
};

struct CEmHostOptions {
  EmCommand m_Command = EmCommand::kNone;
  std::string m_CommandName;
  std::string m_ArchiveName;  // transfer / collect NAME

  std::string m_ModulePath;    // empty: DefaultModulePath()
  std::string m_ToolRoot;      // --tool-root (absolute)
  std::string m_RegistryFile;  // --registry
  unsigned int m_Cabinet = 0;
  std::string m_BmcDir;     // absolute; default ./bmc
  std::string m_TraceFile;  // empty: standard error
  unsigned int m_TraceLevel = 0;
  unsigned int m_ServiceType = 5;
  CHtiMode m_Hti;
  // create/collect: 0 = no limit; transfer: "TO", 0 (not given) = derived
  // from the archive's size (DefaultTransferTimeout)
  unsigned int m_TimeoutSec = 0;
  bool m_TimeoutGiven = false;
  bool m_NoStart = false;
  std::string m_ToolLog;             // --tool-log (absolute); empty: DefaultToolLogPath
  unsigned int m_HeartbeatSec = 10;  // create/collect on a pipe: a line this often; 0: none
};

// Parses argv. False with *error (one line, without the program name) on a
// usage error.
bool ParseEmHostOptions(const std::vector<std::string>& args, CEmHostOptions& out,
                        std::string* error);

// The "TO" of a transfer when --timeout does not give it: room for an
// archive of archiveBytes on a slow disk, 60 s plus one second per 20 MB
// (kSlowDiskBytesPerSec), at most 65535 (the module keeps 16 bits of "TO").
constexpr unsigned long long kSlowDiskBytesPerSec = 20000000ull;
unsigned int DefaultTransferTimeout(unsigned long long archiveBytes);

// The usage text printed by --help and after a usage error.
const char* EmHostUsage();

// An absolute form of path (relative paths are taken from the working
// directory; nothing is resolved).
std::string AbsolutePath(const std::string& path);
