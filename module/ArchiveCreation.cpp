// The module's tool-root lookup (the one em-host makes too, in
// module/ToolRoot.cpp), removing an old archive, and the archive creation
// job (opcode 0x3401): run the tool as a child process, wait for it and
// judge what it left behind.
#include "frame/Trace.h"
#include "module/EM_KORVEX.h"
#include "module/ModuleConstants.h"
#include "module/ToolRoot.h"
#include "util/FileStatus.h"

#include <cerrno>
#include <ctime>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

int EM_KORVEX::GetKorvexPath(std::string& root) { return korvex::LookUpToolRoot(root); }

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

namespace {

// Two tool instances would write the same files: the request is refused,
// and its header flagged ("C") so the requester can tell this case apart.
unsigned int RefuseForeignTool(SipJson& request) {
  KORVEX_TRACE(1,
               "\n\nEM_KORVEX (Create)  : ## ERROR! Foreign Korvex process already running - "
               "cannot start another Korvex instance!");
  JsonValue& root = request.Document();
  if (!root.IsObject()) return korvex::kStatusToolRunning;
  JsonValue::MemberIterator sip = root.FindMember("SIP");
  if (sip == root.MemberEnd() || !sip->value.IsObject()) return korvex::kStatusToolRunning;
  JsonValue::MemberIterator flag = sip->value.FindMember("C");
  if (flag != sip->value.MemberEnd()) {
    flag->value.SetBool(true);
  } else {
    sip->value.AddMember(JsonValue(rapidjson::StringRef("C")), JsonValue(true),
                         request.Allocator());
  }
  return korvex::kStatusToolRunning;
}

// The tool ended with 0: done only if it left the archive behind.
unsigned int JudgeArchive(const char* archivePath, time_t startTime) {
  struct stat archive;
  if (korvex::FileStatus(archivePath, archive) != 0) {
    KORVEX_TRACE(1,
                 "\n\nEM_KORVEX (Create)  : ## ERROR! Korvex archive process finished "
                 "successfully, but archive not created!\n");
    return korvex::kStatusJobFailed;
  }
  const time_t endTime = time(nullptr);
  const unsigned int sizeKb = static_cast<unsigned int>(archive.st_size) >> 10;
  KORVEX_TRACE(2, "\nEM_KORVEX (Create)  : Korvex archive successfully created");
  KORVEX_TRACE(2, "\nEM_KORVEX (Create)  :   file size = %d kBytes", sizeKb);
  KORVEX_TRACE(2, "\nEM_KORVEX (Create)  :   duration = %d seconds",
               static_cast<int>(endTime - startTime));
  KORVEX_TRACE(2, "\n");
  return korvex::kStatusDone;
}

// The status of a tool run that ended with exitCode.
unsigned int JudgeToolExit(unsigned int exitCode, const char* archivePath, time_t startTime) {
  if (exitCode == 0) return JudgeArchive(archivePath, startTime);
  if (exitCode == korvex::kToolTerminatedExitCode) {
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
  return korvex::kStatusJobFailed;
}

}  // namespace

unsigned int EM_KORVEX::RunTool(time_t startTime) {
  const std::string commandLine = m_ExecutablePath;
  KORVEX_TRACE(3, "\nEM_KORVEX (Create)  :   create Korvex process, command line: %s",
               commandLine.c_str());
  __atomic_store_n(&m_ToolProcessId, 0u, __ATOMIC_RELEASE);
  // Blocks the worker for the tool's whole run. ExecuteCmd publishes the
  // child's id into m_ToolProcessId as soon as it exists, so that Stop on
  // the host's thread can cut a hanging tool short.
  unsigned int exitCode = 0;
  if (!CProcess::ExecuteCmd(commandLine.c_str(), m_ToolProcessId, exitCode, nullptr, false)) {
    return korvex::kStatusJobFailed;  // the tool could not be run; no trace
  }
  KORVEX_TRACE(3, "\nEM_KORVEX (Create)  : Korvex process exit");
  __atomic_store_n(&m_ToolProcessId, 0u, __ATOMIC_RELEASE);
  return JudgeToolExit(exitCode, m_ArchivePath.c_str(), startTime);
}

unsigned int EM_KORVEX::CreateArchive(SipJson& request) {
  const unsigned int timeout = request.GetCmdValue(request.m_CmdIndex, "TO", 0) & korvex::kTimeoutMask;
  KORVEX_TRACE(3, "\nEM_KORVEX (Create)  : Archive creation request, timeout=%d sec.", timeout);
  KORVEX_TRACE(2, "\nEM_KORVEX (Create)  : Start Korvex archive creation...");

  // Whatever archive is found afterwards must be this run's.
  DeleteArchiveFile();

  unsigned int foreignProcessId = 0;
  const time_t startTime = time(nullptr);
  if (CProcess::FindProcess(foreignProcessId, korvex::kToolProcessName)) {
    return RefuseForeignTool(request);
  }
  return RunTool(startTime);
}

bool EM_KORVEX::StartArchiveCreation(SipJson& request) {
  unsigned int status = korvex::kStatusJobFailed;
  if (__atomic_load_n(&m_SwitchShutdown, __ATOMIC_RELAXED) != 0) {
    KORVEX_TRACE(2,
                 "\n\nEM_KORVEX (Create)  : ## NOTE: SWITCH shutdown in progress - do not create "
                 "archive");
  } else {
    status = CreateArchive(request);
  }
  request.SetStatus(status);
  return status == korvex::kStatusDone;
}
