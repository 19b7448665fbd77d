// em-host's commands: query, create, transfer, collect, cleanup, info and
// serve, with the progress display and the final summaries.
#include "frame/ExtensionModule.h"
#include "host/HostControl.h"
#include "host/emhost/cli/EmHost.h"
#include "host/emhost/bmc/HtiStandIn.h"
#include "host/emhost/serve/EventOutput.h"
#include "host/emhost/switch/HostSwitch.h"
#include "host/emhost/loader/ModuleHost.h"
#include "host/emhost/cli/ProgressText.h"
#include "host/emhost/serve/ServeSession.h"
#include "host/emhost/bmc/Sha256.h"
#include "host/emhost/serve/Signals.h"
#include "host/emhost/cli/StatusText.h"
#include "host/emhost/cli/ToolReport.h"
#include "message/SipJson.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr unsigned int kOpcodeQuery = 0x3400u;
constexpr unsigned int kOpcodeCreate = 0x3401u;
constexpr unsigned int kOpcodeTransfer = 0x3402u;
constexpr const char* kArchiveName = "Korvex_Data.zip";
constexpr const char* kToolName = "Korvex";
// How long em-host waits for a transfer's answer beyond its time limit: the
// module's own wait for the file transfer is bounded, so an answer that
// does not come by then never will.
constexpr unsigned int kTransferGraceSec = 30;

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f s", seconds);
  return text;
}

void Complain(const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "em-host: %s\n", text.c_str());
  std::fflush(stderr);
}

bool FileSize(const std::string& path, std::uint64_t& size) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return false;
  size = static_cast<std::uint64_t>(info.st_size);
  return true;
}

// Progress of long waits. On a terminal one line is rewritten with the
// elapsed time; on a pipe or file every state change is one line, and with
// a heartbeat a line every heartbeatSec seconds shows that the wait goes on.
// The tool's own output never comes here (it goes to the tool log).
class CProgress {
 public:
  explicit CProgress(unsigned int heartbeatSec = 0)
      : m_Terminal(::isatty(STDOUT_FILENO) == 1), m_HeartbeatSec(heartbeatSec) {}

  void State(const std::string& line) {
    ClearTick();
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
  }
  void Tick(const std::string& text, double seconds, const std::string& detail = "") {
    if (!m_Terminal) {
      Heartbeat(text, seconds);
      return;
    }
    std::printf("\r%s... %d s%s%s\033[K", text.c_str(), static_cast<int>(seconds),
                detail.empty() ? "" : ", ", detail.c_str());
    std::fflush(stdout);
    m_Ticking = true;
  }
  void ClearTick() {
    if (!m_Ticking) return;
    std::printf("\r\033[K");
    std::fflush(stdout);
    m_Ticking = false;
  }

 private:
  void Heartbeat(const std::string& text, double seconds) {
    if (m_HeartbeatSec == 0 || seconds < m_NextBeat) return;
    std::printf("%s, %d s\n", text.c_str(), static_cast<int>(seconds));
    std::fflush(stdout);
    while (m_NextBeat <= seconds) m_NextBeat += m_HeartbeatSec;
  }

  bool m_Terminal;
  bool m_Ticking = false;
  unsigned int m_HeartbeatSec;
  double m_NextBeat = m_HeartbeatSec;
};

struct CReply {
  unsigned int m_Status = 22;
  std::string m_Json;
};

// Collects the switch's replies for a command, by request tag.
class CCommandListener : public CISwitchListener {
 public:
  CCommandListener() : m_WakeFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_WakeFd < 0) throw std::runtime_error(std::string("eventfd: ") + std::strerror(errno));
  }
  ~CCommandListener() override { ::close(m_WakeFd); }

  void OnReply(std::uint64_t tag, SipJson& message) override {
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      CReply& reply = m_Replies[tag];
      reply.m_Status = message.Status();
      reply.m_Json = message.ToJson();
    }
    const std::uint64_t one = 1;
    if (::write(m_WakeFd, &one, sizeof(one)) < 0) {
      // Only fails when the counter is full; the reader wakes anyway.
    }
  }

  bool TakeReply(std::uint64_t tag, CReply& out) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    const auto found = m_Replies.find(tag);
    if (found == m_Replies.end()) return false;
    out = found->second;
    m_Replies.erase(found);
    return true;
  }
  int WakeFd() const { return m_WakeFd; }
  void Drain() {
    std::uint64_t count;
    if (::read(m_WakeFd, &count, sizeof(count)) < 0) {
      // Nothing pending.
    }
  }

 private:
  int m_WakeFd;
  std::mutex m_Mutex;
  std::map<std::uint64_t, CReply> m_Replies;
};

// One run of a command: the loaded module, the switch and the instance.
class CHostRun {
 public:
  CHostRun(const CEmHostOptions& options, CSignalWatch& signals)
      : m_Options(options),
        m_Signals(signals),
        m_StandIn(options.m_Hti, options.m_BmcDir),
        m_Switch(options.m_ServiceType),
        m_Instance(m_Library) {
    m_StandIn.RegisterWith(m_Switch);
    m_Switch.SetListener(&m_Listener);
  }
  ~CHostRun() {
    StopModule();
    m_Switch.SetListener(nullptr);
  }

  // A copy in flight is cancelled first (it never appears), then the module
  // is stopped, which ends a running tool.
  void StopModule() {
    m_Switch.StopHandlers();
    m_Instance.StopAndDelete();
  }

  // Loads the library; reports and returns false on failure.
  bool Load() {
    std::string path =
        m_Options.m_ModulePath.empty() ? DefaultModulePath() : m_Options.m_ModulePath;
    std::string error;
    if (!m_Library.Load(path, &error)) {
      Complain("cannot load the module library: " + error);
      return false;
    }
    return true;
  }

  // EM_GetModuleName, EM_Create, GetProperties, SetServerCabinetNumber
  // and, when start is set, Start. startResult gets Start's result.
  bool Bring(bool start, int* startResult) {
    m_ModuleName = m_Library.GetModuleName();
    std::string error;
    if (!m_Instance.Create(&error)) {
      Complain(m_ModuleName + ": " + error);
      return false;
    }
    m_PropertiesResult = m_Instance.ReadProperties();
    m_Instance.Module().SetServerCabinetNumber(m_Options.m_Cabinet);
    if (start) {
      const int started = m_Instance.Start(&m_Switch, kKorvexModuleId);
      if (startResult != nullptr) *startResult = started;
    }
    return true;
  }

  // A request to the module's current command 0, for this cabinet.
  static void Build(SipJson& request, unsigned int opcode, unsigned int cabinet,
                    unsigned int timeoutSec, const std::string* data) {
    JsonValue& command = request.GetCmd();
    request.SetCmdValue(command, "OC", opcode, 0);
    request.SetCmdValue(command, "CA", cabinet, 0);
    request.SetCmdValue(command, "TO", timeoutSec, 1);
    if (data != nullptr) {
      JsonValue text(data->c_str(), static_cast<rapidjson::SizeType>(data->size()),
                     request.Allocator());
      command.AddMember("DA", text, request.Allocator());
    }
  }

  // Delivers request; false (reported) when the module throws.
  bool Send(const std::string& what, SipJson& request, std::uint64_t tag, int& result) {
    try {
      result = m_Switch.Deliver(m_Instance.Module(), request, tag);
      return true;
    } catch (const std::exception& e) {
      Complain(what + ": the module threw: " + e.what());
    } catch (...) {
      Complain(what + ": the module threw");
    }
    return false;
  }

  enum class Outcome { kReply, kTimedOut, kSignal };

  // Waits for the reply to tag, ticking the progress (with detail's text,
  // when given), for at most limitSec seconds (0: no limit), or until a signal.
  Outcome Await(std::uint64_t tag, unsigned int limitSec, CProgress& progress,
                const std::string& runningText, CReply& reply, int& signo,
                const std::function<std::string(double)>& detail = nullptr) {
    const Clock::time_point start = Clock::now();
    for (;;) {
      if (m_Listener.TakeReply(tag, reply)) return Outcome::kReply;
      const double elapsed = SecondsSince(start);
      if (limitSec != 0 && elapsed >= limitSec) return Outcome::kTimedOut;
      progress.Tick(runningText, elapsed, detail ? detail(elapsed) : std::string());
      // Wake at the next whole second (for the display) or at the limit.
      double wait = 1.0 - (elapsed - static_cast<double>(static_cast<long long>(elapsed)));
      if (limitSec != 0) wait = std::min(wait, static_cast<double>(limitSec) - elapsed);
      const int waitMs = std::max(1, static_cast<int>(wait * 1000.0) + 1);
      pollfd fds[2] = {{m_Listener.WakeFd(), POLLIN, 0}, {m_Signals.Fd(), POLLIN, 0}};
      if (::poll(fds, 2, waitMs) < 0 && errno != EINTR) return Outcome::kTimedOut;
      if ((fds[1].revents & POLLIN) != 0) {
        signo = m_Signals.Take();
        if (signo != 0) return Outcome::kSignal;
      }
      if ((fds[0].revents & POLLIN) != 0) m_Listener.Drain();
    }
  }

  // Ctrl-C, SIGTERM, a hang-up and the like: the running tool's tree is
  // told to end first (it gets its grace period at once, not only after the
  // module's worker has been waited for), then the module is stopped (and
  // the switch cancels a copy to the BMC first).
  int Interrupted(CProgress& progress, int signo, const char* ends = kEndsTool) {
    progress.ClearTick();
    const char* name = ::sigabbrev_np(signo);
    Complain(std::string(signo == SIGINT ? "interrupted" : "terminated") +
             (signo == SIGINT || signo == SIGTERM ? std::string()
                                                  : std::string(" by SIG") + (name ? name : "?")) +
             "; stopping the module, which " + ends);
    halvane::TerminateRunningTools(1);
    StopModule();
    return ExitStatusForSignal(signo);
  }

  int TimedOut(CProgress& progress, const std::string& what, unsigned int limitSec,
               const char* ends = kEndsTool) {
    progress.ClearTick();
    Complain(what + ": no answer within " + std::to_string(limitSec) +
             " s; stopping the module, which " + ends);
    halvane::TerminateRunningTools(1);
    StopModule();
    Complain(what + ": module stopped");
    return kExitTimeout;
  }

  // Why Start refused, in words, for commands that need the worker.
  void ExplainNotStarted(const std::string& what) {
    std::string root;
    if (!ConfiguredToolRoot(root)) {
      Complain(what +
               ": no Korvex installation root is configured (use --tool-root or "
               "--registry); the module did not start");
    } else {
      Complain(what + ": Korvex is not installed (" + root + kToolName +
               " is missing); the module did not start");
    }
  }

  static constexpr const char* kEndsTool = "ends a running Korvex";
  static constexpr const char* kEndsCopy = "cancels the copy to the BMC";

  const CEmHostOptions& m_Options;
  CSignalWatch& m_Signals;
  CModuleLibrary m_Library;
  CCommandListener m_Listener;
  CHtiStandIn m_StandIn;  // outlives the switch's use of its handler
  CHostSwitch m_Switch;
  CModuleInstance m_Instance;
  std::string m_ModuleName;
  int m_PropertiesResult = 0;
  std::uint64_t m_NextTag = 1;
};

// ---------------------------------------------------------------------------

int RunQuery(CHostRun& run) {
  if (!run.Load() || !run.Bring(true, nullptr)) return kExitSetup;
  SipJson request;
  CHostRun::Build(request, kOpcodeQuery, run.m_Options.m_Cabinet, 0, nullptr);
  int result = 0;
  if (!run.Send("query", request, run.m_NextTag++, result)) return kExitSetup;
  const unsigned int status = request.Status();
  const JsonValue* data = request.FindCmdMember(request.m_CmdIndex, "DA");
  if (result != 1 || status != 0 || data == nullptr || !data->IsUint()) {
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

struct CCreated {
  double m_Seconds = 0;
  std::string m_ArchivePath;
  std::uint64_t m_Size = 0;
};

// Another collection is in the way: said in words, with the process that
// runs when one is found; "busy" has an exit status of its own.
int ReportBusy(const std::string& what, const std::string& why) {
  unsigned int pid = 0;
  std::string text = what + ": another Korvex collection is already running";
  if (!why.empty()) {
    text += " (" + why + ")";
  } else if (CProcess::FindProcess(pid, kToolName)) {
    text += " (" + DescribeProcess(pid) + ")";
  }
  Complain(text + "; status 5, try again later");
  return kExitBusy;
}

// Status 6: how the tool's run went, and where its output is.
void ExplainFailedRun(const std::string& what) {
  const halvane::CToolRun run = halvane::LastToolRun();
  if (run.m_Result == halvane::CToolRun::Result::kNone) {
    Complain(what + ": " + StatusLine(6, EmJob::kCreate));
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

// The creation step of create and collect. Returns -1 when the archive was
// created (filled into created), else the exit status.
int CreateArchive(CHostRun& run, const std::string& what, CProgress& progress, CCreated& created) {
  const unsigned int limit = run.m_Options.m_TimeoutSec;
  SipJson request;
  CHostRun::Build(request, kOpcodeCreate, run.m_Options.m_Cabinet, limit, nullptr);
  const std::uint64_t tag = run.m_NextTag++;
  const Clock::time_point start = Clock::now();
  int result = 0;
  if (!run.Send(what, request, tag, result)) return kExitSetup;
  unsigned int status = request.Status();
  if (status == 22) {
    progress.State(what + ": creating the Korvex archive");
    CReply reply;
    int signo = 0;
    switch (run.Await(tag, limit, progress, what + ": Korvex is running", reply, signo)) {
      case CHostRun::Outcome::kSignal:
        return run.Interrupted(progress, signo);
      case CHostRun::Outcome::kTimedOut:
        return run.TimedOut(progress, what, limit);
      case CHostRun::Outcome::kReply:
        status = reply.m_Status;
        break;
    }
  }
  created.m_Seconds = SecondsSince(start);
  progress.State(what + ": archive creation finished after " + Seconds(created.m_Seconds));
  if (status == 5) return ReportBusy(what, "");
  if (status == 6) {
    ExplainFailedRun(what);
    return kExitStatus;
  }
  if (status != 0) {
    Complain(what + ": " + StatusLine(status, EmJob::kCreate));
    return kExitStatus;
  }
  std::string root;
  ConfiguredToolRoot(root);
  created.m_ArchivePath = root + kArchiveName;
  FileSize(created.m_ArchivePath, created.m_Size);
  return -1;
}

struct CTransferred {
  double m_Seconds = 0;
  std::string m_Destination;
  bool m_Present = false;
  std::uint64_t m_Size = 0;
  std::string m_Sha256;
};

// The transfer step of transfer and collect; -1 on status 0, else the exit status.
int TransferArchive(CHostRun& run, const std::string& what, unsigned int timeoutSec,
                    CProgress& progress, CTransferred& done) {
  const std::string& name = run.m_Options.m_ArchiveName;
  SipJson request;
  CHostRun::Build(request, kOpcodeTransfer, run.m_Options.m_Cabinet, timeoutSec, &name);
  const std::uint64_t tag = run.m_NextTag++;
  const Clock::time_point start = Clock::now();
  int result = 0;
  if (!run.Send(what, request, tag, result)) return kExitSetup;
  unsigned int status = request.Status();
  if (status == 22) {
    progress.State(what + ": transferring the archive to the BMC as " + name);
    const unsigned int guard = std::max(timeoutSec, 5u) + kTransferGraceSec;
    CReply reply;
    int signo = 0;
    const auto detail = [&run](double seconds) {
      CTransferProgress copy;
      if (!run.m_StandIn.TransferProgress(copy)) return std::string();
      return TransferProgressText(copy.m_Copied, copy.m_Total, seconds);
    };
    switch (run.Await(tag, guard, progress, what + ": transferring", reply, signo, detail)) {
      case CHostRun::Outcome::kSignal:
        return run.Interrupted(progress, signo, CHostRun::kEndsCopy);
      case CHostRun::Outcome::kTimedOut:
        return run.TimedOut(progress, what, guard, CHostRun::kEndsCopy);
      case CHostRun::Outcome::kReply:
        status = reply.m_Status;
        break;
    }
  }
  done.m_Seconds = SecondsSince(start);
  progress.State(what + ": transfer finished after " + Seconds(done.m_Seconds) + ", status " +
                 std::to_string(status));
  if (status != 0) {
    const std::string why = run.m_StandIn.TransferMessage();
    Complain(what + ": " + StatusLine(status, EmJob::kTransfer) + (why.empty() ? "" : ": " + why));
    return kExitStatus;
  }
  done.m_Destination = run.m_Options.m_BmcDir + "/" + name;
  done.m_Present = FileSize(done.m_Destination, done.m_Size);
  if (done.m_Present) {
    done.m_Sha256 = run.m_StandIn.StoredSha256(done.m_Destination);
    if (done.m_Sha256.empty()) Sha256OfFile(done.m_Destination, done.m_Sha256, nullptr);
  }
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

// create, transfer and collect need the module's worker, which Start only
// runs when the tool is installed.
bool StartForJob(CHostRun& run, const std::string& what) {
  if (!run.Load()) return false;
  int started = 0;
  if (!run.Bring(true, &started)) return false;
  if (started == 0) {
    run.ExplainNotStarted(what);
    return false;
  }
  return true;
}

// create and collect: one collection per tool root at a time (the lock),
// and none while a Korvex runs: the module would delete the running
// collection's archive before it finds out. -1 when the command may go on.
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
  if (CProcess::FindProcess(pid, kToolName)) return ReportBusy(what, "");
  return -1;
}

int RunCreate(CHostRun& run) {
  CCollectionLock lock;
  const int busy = ClaimCollection("create", lock);
  if (busy >= 0) return busy;
  if (!StartForJob(run, "create")) return kExitSetup;
  CProgress progress(run.m_Options.m_HeartbeatSec);
  CCreated created;
  const int failed = CreateArchive(run, "create", progress, created);
  if (failed >= 0) return failed;
  std::printf("archive:  %s (%llu bytes)\n", created.m_ArchivePath.c_str(),
              static_cast<unsigned long long>(created.m_Size));
  std::printf("duration: %s\n", Seconds(created.m_Seconds).c_str());
  return 0;
}

// The "TO" of a transfer: --timeout, or room for the archive on a slow disk.
unsigned int TransferTimeout(const CEmHostOptions& options, bool given) {
  if (given) return options.m_TimeoutSec;
  std::string root;
  std::uint64_t size = 0;
  if (ConfiguredToolRoot(root)) FileSize(root + kArchiveName, size);
  return DefaultTransferTimeout(size);
}

int RunTransfer(CHostRun& run) {
  if (!StartForJob(run, "transfer")) return kExitSetup;
  CProgress progress;
  CTransferred done;
  const unsigned int timeout = TransferTimeout(run.m_Options, run.m_Options.m_TimeoutGiven);
  const int failed = TransferArchive(run, "transfer", timeout, progress, done);
  if (failed >= 0) return failed;
  PrintDestination(done, " ");
  std::printf("duration:    %s\n", Seconds(done.m_Seconds).c_str());
  return 0;
}

int RunCollect(CHostRun& run) {
  CCollectionLock lock;
  const int busy = ClaimCollection("collect", lock);
  if (busy >= 0) return busy;
  if (!StartForJob(run, "collect")) return kExitSetup;
  const Clock::time_point start = Clock::now();
  CProgress progress(run.m_Options.m_HeartbeatSec);
  CCreated created;
  int failed = CreateArchive(run, "collect", progress, created);
  if (failed >= 0) return failed;
  CTransferred done;
  // --timeout is the creation's limit; the transfer's follows the archive.
  failed = TransferArchive(run, "collect", TransferTimeout(run.m_Options, false), progress, done);
  if (failed >= 0) return failed;
  std::printf("archive:     %s (%llu bytes)\n", created.m_ArchivePath.c_str(),
              static_cast<unsigned long long>(created.m_Size));
  PrintDestination(done, " ");
  std::printf("duration:    %s\n", Seconds(SecondsSince(start)).c_str());
  return 0;
}

bool Exists(const std::string& path, bool directory) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && (!directory || S_ISDIR(info.st_mode));
}

int RunCleanup(CHostRun& run) {
  if (!run.Load()) return kExitSetup;
  // What the module removes: the archive under the configured root and
  // Korvex's data directory. Its result alone cannot tell success from
  // failure (a completely removed directory reports 0), so em-host looks
  // at what is left.
  static const std::string kDataDir = "/var/log/Korvex";
  std::string root;
  const bool configured = ConfiguredToolRoot(root);
  const std::string archive = root + kArchiveName;
  const bool archiveBefore = configured && Exists(archive, false);
  const bool dirBefore = Exists(kDataDir, true);
  const unsigned int result = run.m_Library.SetupAction(4);
  std::printf("cleanup: EM_SetupAction(4) returned %u\n", result);
  if (!configured) {
    Complain(
        "cleanup: no Korvex installation root is configured (use --tool-root or "
        "--registry); nothing was removed");
    return kExitStatus;
  }
  const bool archiveAfter = Exists(archive, false);
  const bool dirAfter = Exists(kDataDir, true);
  std::printf("archive:  %s %s\n", archive.c_str(),
              archiveAfter    ? "is still there"
              : archiveBefore ? "removed"
                              : "was not there");
  std::printf("data dir: %s %s\n", kDataDir.c_str(),
              dirAfter    ? "is still there"
              : dirBefore ? "removed"
                          : "was not there");
  if (archiveAfter || dirAfter) {
    Complain("cleanup: not everything could be removed");
    return kExitStatus;
  }
  return 0;
}

int RunInfo(CHostRun& run) {
  if (!run.Load() || !run.Bring(false, nullptr)) return kExitSetup;
  const _ExtensionModuleProperties& p = run.m_Instance.Properties();
  auto field = [](const char* text) { return std::string(text, strnlen(text, 100)); };
  std::printf("module:      %s\n", run.m_ModuleName.c_str());
  std::printf("name:        %s\n", run.m_Instance.Module().GetName());
  std::printf("description: %s\n", field(p.m_ModuleDescription).c_str());
  std::printf("library:     %s\n", run.m_Library.Path().c_str());
  std::printf(
      "properties:  GetProperties %d, name \"%s\", kind %u, flags A 0x%02X, flags B "
      "0x%02X\n",
      run.m_PropertiesResult, field(p.m_ModuleName).c_str(), p.m_PropertiesKind, p.m_FlagsA,
      p.m_FlagsB);
  std::string root;
  if (ConfiguredToolRoot(root)) {
    std::printf("tool root:   %s (%s)\n", root.c_str(),
                Exists(root + kToolName, false) ? "Korvex present" : "no Korvex there");
  } else {
    std::printf("tool root:   not configured\n");
  }
  return 0;
}

int RunServe(CHostRun& run) {
  if (!run.Load()) return kExitSetup;
  // The session takes over the switch's events from here on.
  run.m_Switch.SetListener(nullptr);
  if (!run.Bring(!run.m_Options.m_NoStart, nullptr)) return kExitSetup;
  // Events go through a stream that gives up on a stalled reader when a
  // signal comes, so a signal always ends the session.
  CEventOutput output(STDOUT_FILENO, run.m_Signals.Fd());
  CServeSession session(run.m_Library, run.m_Instance, run.m_Switch, run.m_Signals, STDIN_FILENO,
                        output.Stream() != nullptr ? output.Stream() : stdout);
  return session.Run();
}

}  // namespace

bool ConfiguredToolRoot(std::string& root) {
  std::string key;
  if (CRegistry::GetProductRegistryRoot(key, kToolName) == 0) return false;
  key += "\\Setup";
  CRegistry registry;
  if (registry.Open(key.c_str(), CRegistry::MLocalMachine, -1) != 0) return false;
  std::string value;
  const bool read = registry.QueryValue(value, "FileRoot", nullptr) == 0;
  registry.Close();
  if (!read) return false;
  if (value.empty() || value.back() != '/') value += '/';
  root = value;
  return true;
}

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
      return RunServe(run);
    default:
      return kExitUsage;
  }
}
