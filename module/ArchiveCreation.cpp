// Finding the Korvex tool in the configuration store, removing an old
// archive, and the archive creation job (opcode 0x3401): run the tool as a
// child process, wait for it and judge what it left behind.
#include "frame/Trace.h"
#include "module/EM_KORVEX.h"
#include "module/ModuleConstants.h"
#include "util/FileStatus.h"

#include <cerrno>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

int EM_KORVEX::GetKorvexPath(std::string& root) {
  std::string key;
  if (CRegistry::GetProductRegistryRoot(key, korvex::kProductName) == 0) {
    KORVEX_TRACE(2,
                 "\nEM_KORVEX (GetPath) : ## Korvex pointer key not existing - no Halvane "
                 "component installed.");
    return 0;
  }
  KORVEX_TRACE(3, "\nEM_KORVEX (GetPath) : Found Korvex root registry key: \"%s\"", key.c_str());
  key += "\\";
  key += korvex::kSetupKey;

  int result = 0;
  CRegistry registry;
  KORVEX_TRACE(4, "\nEM_KORVEX (GetPath) :   open Korvex setup key: \"%s\"...", key.c_str());
  if (registry.Open(key.c_str(), CRegistry::MLocalMachine, -1) != 0) {
    // The object's own last-error word tells more than Open's result.
    KORVEX_TRACE(1, "\nEM_KORVEX (GetPath) : ## ERROR 0x%08X! Could not open registry key \"%s\"!",
                 registry.m_LastError, key.c_str());
    return 0;
  }

  KORVEX_TRACE(4, "\nEM_KORVEX (GetPath) :   query Korvex file root value: \"%s\"...",
               korvex::kFileRootValue);
  if (registry.QueryValue(root, korvex::kFileRootValue, nullptr) != 0) {
    KORVEX_TRACE(1,
                 "\nEM_KORVEX (GetPath) : ## ERROR 0x%08X! Could not query registry value \"%s\" "
                 "in Korvex setup key!",
                 registry.m_LastError, korvex::kFileRootValue);
  } else {
    // Callers append file names directly, so the root always ends in "/".
    if (root.empty() || root.back() != '/') {
      root += '/';
    }
    KORVEX_TRACE(3, "\nEM_KORVEX (GetPath) : Korvex base dir:   \"%s\"", root.c_str());
    result = 1;
  }
  registry.Close();
  return result;
}

int EM_KORVEX::DeleteArchiveFile() {
  struct stat status;
  if (korvex::FileStatus(m_ArchivePath.c_str(), status) != 0) {
    KORVEX_TRACE(4, "\nEM_KORVEX           :   Korvex archive file not existing");
    return 0;
  }
  KORVEX_TRACE(3,
               "\nEM_KORVEX           :   delete previous Korvex archive (be sure to have the "
               "latest one!)");
  if (unlink(m_ArchivePath.c_str()) == 0) {
    KORVEX_TRACE(4, "\nEM_KORVEX           :   previous Korvex archive deleted");
    return 1;
  }
  const int error = errno;
  KORVEX_TRACE(
      1, "\nEM_KORVEX           : ## ERROR! Old Korvex archive file cannot be removed (0x%08X)!",
      static_cast<unsigned int>(error));
  return 0;
}

bool EM_KORVEX::StartArchiveCreation(SipJson& request) {
  unsigned int status = korvex::kStatusJobFailed;

  if (__atomic_load_n(&m_SwitchShutdown, __ATOMIC_RELAXED) != 0) {
    KORVEX_TRACE(2,
                 "\n\nEM_KORVEX (Create)  : ## NOTE: SWITCH shutdown in progress - do not create "
                 "archive");
  } else {
    const unsigned int timeout = request.GetCmdValue(request.m_CmdIndex, "TO", 0) & 0xFFFFu;
    KORVEX_TRACE(3, "\nEM_KORVEX (Create)  : Archive creation request, timeout=%d sec.", timeout);
    KORVEX_TRACE(2, "\nEM_KORVEX (Create)  : Start Korvex archive creation...");

    // Whatever archive is found afterwards must be this run's.
    DeleteArchiveFile();

    unsigned int exitCode = 0;
    unsigned int foreignProcessId = 0;
    const time_t startTime = time(nullptr);

    if (CProcess::FindProcess(foreignProcessId, korvex::kToolProcessName)) {
      // Two tool instances would write the same files: refuse, and flag the
      // header so the requester can tell this case apart.
      KORVEX_TRACE(1,
                   "\n\nEM_KORVEX (Create)  : ## ERROR! Foreign Korvex process already running - "
                   "cannot start another Korvex instance!");
      JsonValue& root = request.Document();
      if (root.IsObject()) {
        JsonValue::MemberIterator sip = root.FindMember("SIP");
        if (sip != root.MemberEnd() && sip->value.IsObject()) {
          JsonValue::MemberIterator flag = sip->value.FindMember("C");
          if (flag != sip->value.MemberEnd()) {
            flag->value.SetBool(true);
          } else {
            sip->value.AddMember(JsonValue(rapidjson::StringRef("C")), JsonValue(true),
                                 request.Allocator());
          }
        }
      }
      status = korvex::kStatusToolRunning;
    } else {
      const std::string commandLine = m_ExecutablePath;
      KORVEX_TRACE(3, "\nEM_KORVEX (Create)  :   create Korvex process, command line: %s",
                   commandLine.c_str());
      __atomic_store_n(&m_ToolProcessId, 0u, __ATOMIC_RELEASE);
      // Blocks the worker for the tool's whole run. ExecuteCmd publishes the
      // child's id into m_ToolProcessId as soon as it exists, so that Stop on
      // the host's thread can cut a hanging tool short.
      if (CProcess::ExecuteCmd(commandLine.c_str(), m_ToolProcessId, exitCode, nullptr, false)) {
        KORVEX_TRACE(3, "\nEM_KORVEX (Create)  : Korvex process exit");
        __atomic_store_n(&m_ToolProcessId, 0u, __ATOMIC_RELEASE);

        if (exitCode == 0) {
          struct stat archive;
          if (korvex::FileStatus(m_ArchivePath.c_str(), archive) == 0) {
            const time_t endTime = time(nullptr);
            unsigned int sizeKb = 0;
            struct stat sized;
            if (korvex::FileStatus(m_ArchivePath.c_str(), sized) == 0) {
              sizeKb = static_cast<unsigned int>(sized.st_size) >> 10;
            }
            KORVEX_TRACE(2, "\nEM_KORVEX (Create)  : Korvex archive successfully created");
            KORVEX_TRACE(2, "\nEM_KORVEX (Create)  :   file size = %d kBytes", sizeKb);
            KORVEX_TRACE(2, "\nEM_KORVEX (Create)  :   duration = %d seconds",
                         static_cast<int>(endTime - startTime));
            KORVEX_TRACE(2, "\n");
            status = korvex::kStatusDone;
          } else {
            KORVEX_TRACE(1,
                         "\n\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process finished "
                         "successfully, but archive not created!\n");
          }
        } else if (exitCode == korvex::kToolTerminatedExitCode) {
          // Stop terminates the tool with this code; a tool exiting with 1 by
          // itself is reported the same way.
          KORVEX_TRACE(2,
                       "\nEM_KORVEX (Create)  : ## Korvex archive process was terminated because "
                       "of module shutdown!");
        } else {
          KORVEX_TRACE(2,
                       "\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process was terminated "
                       "unsuccessfully; process exit code = 0x%02X!",
                       exitCode);
        }
      }
      // ExecuteCmd failing: the tool could not be run; status 6, no trace.
    }
  }

  request.SetStatus(status);
  return status == korvex::kStatusDone;
}
