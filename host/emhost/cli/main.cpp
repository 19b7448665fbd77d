// em-host: the stand-alone host program. It sets up the host services (the
// trace sink, the configuration store, the thread monitor), blocks the
// signals it handles, and runs one command against the loaded module.
#include "host/HostControl.h"
#include "host/emhost/cli/Docs.h"
#include "host/emhost/cli/EmHost.h"
#include "host/emhost/cli/Options.h"
#include "host/emhost/cli/Output.h"
#include "host/emhost/cli/ToolReport.h"
#include "host/emhost/loader/ModuleHost.h"
#include "host/emhost/serve/Signals.h"
#include "module/Protocol.h"
#include "util/Fd.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// One line on what was wrong, and where to read more: the whole help would
// bury that line.
int Usage(const std::string& error) {
  std::fprintf(stderr, "em-host: %s\nTry 'em-host --help' for more information.\n", error.c_str());
  return kExitUsage;
}

// The version, and the module library this em-host would load: which one is
// the first question when a host misbehaves.
int Version(const CEmHostOptions& options) {
  const std::string module =
      options.m_ModulePath.empty() ? DefaultModulePath() : options.m_ModulePath;
  const bool present = ::access(module.c_str(), F_OK) == 0;
  std::printf("em-host %s\nmodule:  %s%s\n", EmHostVersion().c_str(), module.c_str(),
              present ? "" : " (missing)");
  return 0;
}

// The default BMC directory lands in whatever directory em-host was started
// from: when em-host creates it, it says so (on standard error, with its
// other notices, as standard output may carry a serve session). A failure
// is left to the file transfer to report.
void MakeDefaultBmcDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0) {
    Complain("created the BMC directory " + path + " (the default; --bmc-dir names another)");
  } else if (errno != EEXIST) {
    Complain("cannot create the BMC directory " + path + ": " + std::strerror(errno));
  }
}

// mkdir -p; failures are left to the file transfer to report.
void MakeDirectories(const std::string& path) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    ::mkdir(path.substr(0, slash).c_str(), 0755);
    if (slash == std::string::npos) break;
  }
}

// A standard stream that is closed at start would be the number the next
// open gets: the signal descriptor as "input", a log as "output". Each
// missing one is opened on /dev/null first.
void OpenMissingStandardStreams() {
  for (int fd = 0; fd < 3; ++fd) {
    if (::fcntl(fd, F_GETFD) >= 0) continue;
    korvex::CFd null(::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY));
    // The lowest free number: it may already be fd itself, which stays open.
    if (null.Get() == fd) null.Release();
    if (null) ::dup2(null.Get(), fd);
  }
}

// The trace switch, level and sink; false (reported) when the trace file
// cannot be opened.
bool SetUpTrace(const CEmHostOptions& options) {
  halvane::SetDebugName("em-host");
  halvane::SetTraceLevel(options.m_TraceLevel);
  halvane::SetTraceSwitch(options.m_TraceLevel != 0);
  if (options.m_TraceFile.empty() || options.m_TraceFile == "-") {
    halvane::TraceToStderr();
    return true;
  }
  std::string error;
  if (halvane::TraceToFile(options.m_TraceFile.c_str(), &error)) return true;
  std::fprintf(stderr, "em-host: cannot open the trace file: %s\n", error.c_str());
  return false;
}

// The configuration store: the tool root given, or the file loaded; false
// (reported) when the file cannot be loaded. Then where the tool's output
// goes: its log, never em-host's own streams.
bool SetUpConfiguration(const CEmHostOptions& options) {
  halvane::ClearRegistry();
  std::string error;
  if (!options.m_ToolRoot.empty()) {
    const std::string key =
        halvane::ProductRootKey(korvex::kProductName) + "\\" + korvex::kSetupKey;
    halvane::SetRegistryValue(key, korvex::kFileRootValue, options.m_ToolRoot);
  } else if (!options.m_RegistryFile.empty() &&
             !halvane::LoadRegistryFile(options.m_RegistryFile.c_str(), &error)) {
    std::fprintf(stderr, "em-host: cannot load the configuration store: %s\n", error.c_str());
    return false;
  }
  std::string toolRoot;
  if (!options.m_ToolLog.empty()) {
    halvane::SetToolLog(options.m_ToolLog);
  } else if (ConfiguredToolRoot(toolRoot)) {
    halvane::SetToolLog(DefaultToolLogPath(toolRoot));
  }
  return true;
}

// Sets up the host services for options and runs their command.
int Run(const CEmHostOptions& options, CSignalWatch& signals) {
  if (!SetUpTrace(options)) return kExitSetup;
  halvane::InstallThreadMonitor();
  if (!SetUpConfiguration(options)) return kExitSetup;
  if (options.m_Command == EmCommand::kTransfer || options.m_Command == EmCommand::kCollect ||
      options.m_Command == EmCommand::kServe) {
    if (options.m_BmcDirDefault) {
      MakeDefaultBmcDirectory(options.m_BmcDir);
    } else {
      MakeDirectories(options.m_BmcDir);
    }
  }
  const int status = RunEmHostCommand(options, signals);
  std::fflush(stdout);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  OpenMissingStandardStreams();
  try {
    // First of all, before any thread exists: every thread, the module's
    // worker included, inherits the blocked mask.
    CSignalWatch signals;

    CEmHostOptions options;
    std::string error;
    if (!ParseEmHostOptions(std::vector<std::string>(argv + 1, argv + argc), options, &error)) {
      return Usage(error);
    }
    if (options.m_Command == EmCommand::kHelp) {
      std::fputs(EmHostHelp().c_str(), stdout);
      return 0;
    }
    if (options.m_Command == EmCommand::kVersion) return Version(options);
    return Run(options, signals);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "em-host: %s\n", e.what());
    return kExitSetup;
  }
}
