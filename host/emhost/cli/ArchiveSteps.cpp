// The creation and transfer steps of em-host's collection commands.
#include "host/emhost/cli/ArchiveSteps.h"

#include "host/HostControl.h"
#include "host/emhost/bmc/Sha256.h"
#include "host/emhost/cli/EmHost.h"
#include "host/emhost/cli/StatusText.h"
#include "module/Protocol.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sys/stat.h>
#include <vector>

namespace {

// How long em-host waits for a transfer's answer beyond its time limit: the
// module's own wait for the file transfer is bounded, so an answer that
// does not come by then never will.
constexpr unsigned int kTransferGraceSec = 30;

// Status 6: how the tool's run went, and where its output is.
void ExplainFailedRun(const std::string& what) {
  const halvane::CToolRun run = halvane::LastToolRun();
  if (run.m_Result == halvane::CToolRun::Result::kNone) {
    Complain(what + ": " + StatusLine(korvex::kStatusJobFailed, EmJob::kCreate));
    return;
  }
  std::string text = what + ": the archive was not created: " + DescribeToolRun(run);
  if (run.m_Result == halvane::CToolRun::Result::kExited && run.m_Code == 0) {
    text += ", but left no archive";
  }
  Complain(text + " (status 6)");
  if (!run.m_LogProblem.empty())
    Complain(what + ": Korvex's output was not kept: " + run.m_LogProblem);
  if (run.m_LogPath.empty()) return;
  const std::vector<std::string> lines = LastLogLines(run.m_LogPath, 10);
  Complain(what + ": Korvex's output is in " + run.m_LogPath +
           (lines.empty() ? std::string(" (empty)") : "; its last lines:"));
  for (const std::string& line : lines) Complain(what + ":   | " + line);
}

// The exit status of a creation's final status; -1 for done.
int CreationStatus(const std::string& what, unsigned int status) {
  switch (status) {
    case korvex::kStatusDone:
      return -1;
    case korvex::kStatusToolRunning:
      return ReportBusy(what, "");
    case korvex::kStatusJobFailed:
      ExplainFailedRun(what);
      return kExitStatus;
    default:
      Complain(what + ": " + StatusLine(status, EmJob::kCreate));
      return kExitStatus;
  }
}

std::string ArchivePath() {
  std::string root;
  ConfiguredToolRoot(root);
  return root + korvex::kArchiveName;
}

}  // namespace

bool FileSize(const std::string& path, std::uint64_t& size) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return false;
  size = static_cast<std::uint64_t>(info.st_size);
  return true;
}

int ReportBusy(const std::string& what, const std::string& why) {
  unsigned int pid = 0;
  std::string text = what + ": another Korvex collection is already running";
  if (!why.empty()) {
    text += " (" + why + ")";
  } else if (CProcess::FindProcess(pid, korvex::kToolProcessName)) {
    text += " (" + DescribeProcess(pid) + ")";
  }
  Complain(text + "; status 5, try again later");
  return kExitBusy;
}

int CreateArchive(CHostRun& run, const std::string& what, CProgress& progress, CCreated& created) {
  const unsigned int limit = run.Options().m_TimeoutSec;
  const CRequestStep request{what, korvex::kOpcodeCreateArchive, limit, nullptr};
  CAwaitStep await;
  await.m_Announce = what + ": creating the Korvex archive";
  await.m_Running = what + ": Korvex is running";
  await.m_LimitSec = limit;
  await.m_Ends = CHostRun::kEndsTool;
  CExchanged done;
  const int ended = run.Exchange(request, await, progress, done);
  if (ended >= 0) return ended;
  created.m_Seconds = done.m_Seconds;
  progress.State(what + ": archive creation finished after " + DurationText(done.m_Seconds));
  const int failed = CreationStatus(what, done.m_Status);
  if (failed >= 0) return failed;
  created.m_ArchivePath = ArchivePath();
  FileSize(created.m_ArchivePath, created.m_Size);
  return -1;
}

int TransferArchive(CHostRun& run, const std::string& what, unsigned int timeoutSec,
                    CProgress& progress, CTransferred& done) {
  const std::string& name = run.Options().m_ArchiveName;
  const CRequestStep request{what, korvex::kOpcodeTransferArchive, timeoutSec, &name};
  CAwaitStep await;
  await.m_Announce = what + ": transferring the archive to the BMC as " + name;
  await.m_Running = what + ": transferring";
  await.m_LimitSec = std::max(timeoutSec, 5u) + kTransferGraceSec;
  await.m_Ends = CHostRun::kEndsCopy;
  await.m_Detail = [&run](double seconds) { return run.TransferProgressText(seconds); };
  CExchanged exchanged;
  const int ended = run.Exchange(request, await, progress, exchanged);
  if (ended >= 0) return ended;
  const unsigned int status = exchanged.m_Status;
  done.m_Seconds = exchanged.m_Seconds;
  progress.State(what + ": transfer finished after " + DurationText(done.m_Seconds) + ", status " +
                 std::to_string(status));
  if (status != korvex::kStatusDone) {
    const std::string why = run.TransferMessage();
    Complain(what + ": " + StatusLine(status, EmJob::kTransfer) + (why.empty() ? "" : ": " + why));
    return kExitStatus;
  }
  done.m_Destination = run.Options().m_BmcDir + "/" + name;
  done.m_Present = FileSize(done.m_Destination, done.m_Size);
  if (!done.m_Present) return -1;
  done.m_Replaced = run.StoredOverEarlier(done.m_Destination);
  if (done.m_Replaced)
    progress.State(what + ": replaced the earlier " + name + " in the BMC directory");
  done.m_Sha256 = run.StoredSha256(done.m_Destination);
  if (done.m_Sha256.empty()) Sha256OfFile(done.m_Destination, done.m_Sha256, nullptr);
  return -1;
}

void AnnounceArchive(const std::string& what, CProgress& progress) {
  const std::string path = ArchivePath();
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
  const long long age = static_cast<long long>(std::time(nullptr)) - info.st_mtim.tv_sec;
  const std::string when =
      age >= 0 ? "written " + AgeText(static_cast<unsigned long long>(age)) + " ago"
               : "dated " + AgeText(static_cast<unsigned long long>(-age)) + " in the future";
  progress.State(what + ": the archive " + path + " has " +
                 std::to_string(static_cast<unsigned long long>(info.st_size)) + " bytes, " + when);
}

unsigned int TransferTimeout(const CEmHostOptions& options, bool given) {
  if (given) return options.m_TimeoutSec;
  std::string root;
  std::uint64_t size = 0;
  if (ConfiguredToolRoot(root)) FileSize(root + korvex::kArchiveName, size);
  return DefaultTransferTimeout(size);
}

int ClaimCollection(const std::string& what, CCollectionLock& lock) {
  std::string root;
  if (!ConfiguredToolRoot(root)) return -1;  // StartForJob explains it
  std::string error;
  switch (lock.Acquire(root, &error)) {
    case CCollectionLock::Result::kBusy:
      return ReportBusy(what, "another em-host holds the lock of " + root);
    case CCollectionLock::Result::kFailed:
      Complain(what + ": " + error);
      return kExitSetup;
    case CCollectionLock::Result::kHeld:
      break;
  }
  unsigned int pid = 0;
  if (CProcess::FindProcess(pid, korvex::kToolProcessName)) return ReportBusy(what, "");
  return -1;
}

void PrintDestination(const CTransferred& done, const char* pad) {
  if (done.m_Present) {
    std::printf("destination:%s%s (%llu bytes)\n", pad, done.m_Destination.c_str(),
                static_cast<unsigned long long>(done.m_Size));
    std::printf("sha256:%s     %s\n", pad, done.m_Sha256.c_str());
  } else {
    std::printf("destination:%s%s (not present: the file transfer answered without copying)\n", pad,
                done.m_Destination.c_str());
  }
}
