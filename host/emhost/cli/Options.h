// em-host's command line: global options, one command and its arguments.
#pragma once

#include "host/emhost/bmc/HtiStandIn.h"
#include "module/Protocol.h"

#include <string>
#include <vector>

enum class EmCommand {
  kNone,
  kHelp,
  kVersion,
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
  std::string m_BmcDir;          // absolute; default ./bmc
  bool m_BmcDirDefault = false;  // --bmc-dir not given: m_BmcDir is ./bmc
  std::string m_TraceFile;       // empty: standard error
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
// (kSlowDiskBytesPerSec), at most kMaxTransferTimeout.
constexpr unsigned long long kSlowDiskBytesPerSec = 20000000ull;
unsigned int DefaultTransferTimeout(unsigned long long archiveBytes);

// The highest --timeout a transfer takes: the module keeps 16 bits of "TO".
constexpr unsigned int kMaxTransferTimeout = korvex::kTimeoutMask;

// What em-host's --help, manual page and shell completion are made of, read
// from the same tables the parser uses, so that they cannot drift apart.
struct CEmHostOptionInfo {
  std::string m_Name;   // "--module"
  std::string m_Value;  // "PATH"; empty for a flag
  std::string m_Help;   // one paragraph
  // What a shell completes as its value: "file", "directory", a list of
  // words separated by spaces, or "" (nothing to offer: a number).
  std::string m_Complete;
};
struct CEmHostCommandInfo {
  std::string m_Name;       // "transfer"
  std::string m_Arguments;  // "NAME"; empty when none
  std::string m_Help;
};
// In the order --help lists them; --help and --version included.
std::vector<CEmHostOptionInfo> EmHostOptionInfo();
std::vector<CEmHostCommandInfo> EmHostCommandInfo();

// An absolute form of path (relative paths are taken from the working
// directory; nothing is resolved).
std::string AbsolutePath(const std::string& path);
