// em-host: the stand-alone host program. It sets up the host services (the
// trace sink, the configuration store, the thread monitor), blocks the
// signals it handles, and runs one command against the loaded module.
#include "host/HostControl.h"
#include "host/emhost/cli/EmHost.h"
#include "host/emhost/cli/Options.h"
#include "host/emhost/cli/ToolReport.h"
#include "host/emhost/serve/Signals.h"

#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

int Usage(const std::string& error) {
  std::fprintf(stderr, "em-host: %s\n%s", error.c_str(), EmHostUsage());
  return kExitUsage;
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
    const int null = ::open("/dev/null", fd == 0 ? O_RDONLY : O_WRONLY);
    if (null >= 0 && null != fd) {
      ::dup2(null, fd);
      ::close(null);
    }
  }
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
      std::fputs(EmHostUsage(), stdout);
      return 0;
    }

    halvane::SetDebugName("em-host");
    halvane::SetTraceLevel(options.m_TraceLevel);
    halvane::SetTraceSwitch(options.m_TraceLevel != 0);
    if (options.m_TraceFile.empty() || options.m_TraceFile == "-") {
      halvane::TraceToStderr();
    } else if (!halvane::TraceToFile(options.m_TraceFile.c_str(), &error)) {
      std::fprintf(stderr, "em-host: cannot open the trace file: %s\n", error.c_str());
      return kExitSetup;
    }
    halvane::InstallThreadMonitor();

    halvane::ClearRegistry();
    if (!options.m_ToolRoot.empty()) {
      halvane::SetRegistryValue(halvane::ProductRootKey("Korvex") + "\\Setup", "FileRoot",
                                options.m_ToolRoot);
    } else if (!options.m_RegistryFile.empty() &&
               !halvane::LoadRegistryFile(options.m_RegistryFile.c_str(), &error)) {
      std::fprintf(stderr, "em-host: cannot load the configuration store: %s\n", error.c_str());
      return kExitSetup;
    }

    // The tool's output goes to its log, never to em-host's own streams.
    std::string toolRoot;
    if (!options.m_ToolLog.empty()) {
      halvane::SetToolLog(options.m_ToolLog);
    } else if (ConfiguredToolRoot(toolRoot)) {
      halvane::SetToolLog(DefaultToolLogPath(toolRoot));
    }

    if (options.m_Command == EmCommand::kTransfer || options.m_Command == EmCommand::kCollect ||
        options.m_Command == EmCommand::kServe) {
      MakeDirectories(options.m_BmcDir);
    }

    const int status = RunEmHostCommand(options, signals);
    std::fflush(stdout);
    return status;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "em-host: %s\n", e.what());
    return kExitSetup;
  }
}
