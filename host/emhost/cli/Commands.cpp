// em-host's commands: query, create, transfer, collect, cleanup, info and
// serve, each over one CHostRun, with their final summaries.
#include "frame/ExtensionModule.h"
#include "host/emhost/cli/ArchiveSteps.h"
#include "host/emhost/cli/EmHost.h"
#include "host/emhost/cli/HostRun.h"
#include "host/emhost/cli/StatusText.h"
#include "message/SipJson.h"
#include "module/Protocol.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace {

int RunQuery(CHostRun& run) {
  if (!run.Load() || !run.Bring(true, nullptr)) return kExitSetup;
  SipJson request;
  int result = 0;
  if (!run.Send({"query", korvex::kOpcodeIsInstalled, 0, nullptr}, request, result)) {
    return kExitSetup;
  }
  const unsigned int status = request.Status();
  const JsonValue* data = request.FindCmdMember(request.m_CmdIndex, "DA");
  if (result != 1 || status != korvex::kStatusDone || data == nullptr || !data->IsUint()) {
    Complain("query: " + StatusLine(status, EmJob::kQuery));
    return kExitSetup;
  }
  if (data->GetUint() == 1) {
    std::printf("installed\n");
    return 0;
  }
  std::printf("not installed\n");
  std::string root;
  if (!ConfiguredToolRoot(root)) {
    Complain("no Korvex installation root is configured (use --tool-root or --registry)");
  }
  return kExitStatus;
}

int RunCreate(CHostRun& run) {
  CCollectionLock lock;
  const int busy = ClaimCollection("create", lock);
  if (busy >= 0) return busy;
  if (!run.StartForJob("create")) return kExitSetup;
  CProgress progress(run.Options().m_HeartbeatSec);
  CCreated created;
  const int failed = CreateArchive(run, "create", progress, created);
  if (failed >= 0) return failed;
  std::printf("archive:  %s (%llu bytes)\n", created.m_ArchivePath.c_str(),
              static_cast<unsigned long long>(created.m_Size));
  std::printf("duration: %s\n", DurationText(created.m_Seconds).c_str());
  return 0;
}

int RunTransfer(CHostRun& run) {
  if (!run.StartForJob("transfer")) return kExitSetup;
  CProgress progress;
  CTransferred done;
  const unsigned int timeout = TransferTimeout(run.Options(), run.Options().m_TimeoutGiven);
  AnnounceArchive("transfer", progress);
  const int failed = TransferArchive(run, "transfer", timeout, progress, done);
  if (failed >= 0) return failed;
  PrintDestination(done, " ");
  std::printf("duration:    %s\n", DurationText(done.m_Seconds).c_str());
  return 0;
}

int RunCollect(CHostRun& run) {
  CCollectionLock lock;
  const int busy = ClaimCollection("collect", lock);
  if (busy >= 0) return busy;
  if (!run.StartForJob("collect")) return kExitSetup;
  const EmClock::time_point start = EmClock::now();
  CProgress progress(run.Options().m_HeartbeatSec);
  CCreated created;
  int failed = CreateArchive(run, "collect", progress, created);
  if (failed >= 0) return failed;
  CTransferred done;
  // --timeout is the creation's limit; the transfer's follows the archive.
  failed = TransferArchive(run, "collect", TransferTimeout(run.Options(), false), progress, done);
  if (failed >= 0) return failed;
  std::printf("archive:     %s (%llu bytes)\n", created.m_ArchivePath.c_str(),
              static_cast<unsigned long long>(created.m_Size));
  PrintDestination(done, " ");
  std::printf("duration:    %s\n", DurationText(SecondsSince(start)).c_str());
  return 0;
}

bool Exists(const std::string& path, bool directory) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && (!directory || S_ISDIR(info.st_mode));
}

// "removed", "is still there" or "was not there".
const char* WhatBecameOf(bool before, bool after) {
  return after ? "is still there" : before ? "removed" : "was not there";
}

int RunCleanup(CHostRun& run) {
  if (!run.Load()) return kExitSetup;
  // What the module removes: the archive under the configured root and
  // Korvex's data directory. Its result alone cannot tell success from
  // failure (a completely removed directory reports 0), so em-host looks
  // at what is left.
  const std::string dataDir = korvex::kDataDirectory;
  std::string root;
  const bool configured = ConfiguredToolRoot(root);
  const std::string archive = root + korvex::kArchiveName;
  const bool archiveBefore = configured && Exists(archive, false);
  const bool dirBefore = Exists(dataDir, true);
  const unsigned int result = run.SetupAction(korvex::kSetupActionCleanup);
  std::printf("cleanup: EM_SetupAction(4) returned %u\n", result);
  if (!configured) {
    Complain(
        "cleanup: no Korvex installation root is configured (use --tool-root or "
        "--registry); nothing was removed");
    return kExitStatus;
  }
  const bool archiveAfter = Exists(archive, false);
  const bool dirAfter = Exists(dataDir, true);
  std::printf("archive:  %s %s\n", archive.c_str(), WhatBecameOf(archiveBefore, archiveAfter));
  std::printf("data dir: %s %s\n", dataDir.c_str(), WhatBecameOf(dirBefore, dirAfter));
  if (archiveAfter || dirAfter) {
    Complain("cleanup: not everything could be removed");
    return kExitStatus;
  }
  return 0;
}

std::string Field(const char* text) { return std::string(text, strnlen(text, 100)); }

int RunInfo(CHostRun& run) {
  if (!run.Load() || !run.Bring(false, nullptr)) return kExitSetup;
  const _ExtensionModuleProperties& p = run.Properties();
  std::printf("module:      %s\n", run.ModuleName().c_str());
  std::printf("name:        %s\n", run.InstanceName());
  std::printf("description: %s\n", Field(p.m_ModuleDescription).c_str());
  std::printf("library:     %s\n", run.LibraryPath().c_str());
  std::printf(
      "properties:  GetProperties %d, name \"%s\", kind %u, flags A 0x%02X, flags B "
      "0x%02X\n",
      run.PropertiesResult(), Field(p.m_ModuleName).c_str(), p.m_PropertiesKind, p.m_FlagsA,
      p.m_FlagsB);
  std::string root;
  if (!ConfiguredToolRoot(root)) {
    std::printf("tool root:   not configured\n");
    return 0;
  }
  const bool present = Exists(root + korvex::kExecutableName, false);
  std::printf("tool root:   %s (%s)\n", root.c_str(),
              present ? "Korvex present" : "no Korvex there");
  return 0;
}

}  // namespace

int RunEmHostCommand(const CEmHostOptions& options, CSignalWatch& signals) {
  CHostRun run(options, signals);
  switch (options.m_Command) {
    case EmCommand::kQuery:
      return RunQuery(run);
    case EmCommand::kCreate:
      return RunCreate(run);
    case EmCommand::kTransfer:
      return RunTransfer(run);
    case EmCommand::kCollect:
      return RunCollect(run);
    case EmCommand::kCleanup:
      return RunCleanup(run);
    case EmCommand::kInfo:
      return RunInfo(run);
    case EmCommand::kServe:
      return run.Serve();
    default:
      return kExitUsage;
  }
}
