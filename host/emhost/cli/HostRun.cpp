// One run of an em-host command (see HostRun.h).
#include "host/emhost/cli/HostRun.h"

#include "frame/ExtensionModule.h"
#include "host/HostControl.h"
#include "host/emhost/cli/EmHost.h"
#include "host/emhost/cli/ProgressText.h"
#include "host/emhost/serve/EventOutput.h"
#include "host/emhost/serve/ServeSession.h"
#include "host/emhost/serve/Signals.h"
#include "message/SipJson.h"
#include "module/Protocol.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>
#include <exception>
#include <unistd.h>

// The switch is made here, from the options, and the command listens to it
// from the start; serve takes its events over (Serve).
CHostRun::CHostRun(const CEmHostOptions& options, CSignalWatch& signals)
    : m_Options(options),
      m_Signals(signals),
      m_StandIn(options.m_Hti, options.m_BmcDir),
      m_Switch(options.m_ServiceType),
      m_Instance(m_Library) {
  m_StandIn.RegisterWith(m_Switch);
  m_Switch.SetListener(&m_Listener);
}

CHostRun::~CHostRun() {
  StopModule();
  m_Switch.SetListener(nullptr);
}

void CHostRun::StopModule() {
  m_Switch.StopHandlers();
  m_Instance.StopAndDelete();
}

bool CHostRun::Load() {
  const std::string path =
      m_Options.m_ModulePath.empty() ? DefaultModulePath() : m_Options.m_ModulePath;
  std::string error;
  if (!m_Library.Load(path, &error)) {
    Complain("cannot load the module library: " + error);
    return false;
  }
  return true;
}

bool CHostRun::Bring(bool start, int* startResult) {
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

bool CHostRun::StartForJob(const std::string& what) {
  if (!Load()) return false;
  int started = 0;
  if (!Bring(true, &started)) return false;
  if (started == 0) {
    ExplainNotStarted(what);
    return false;
  }
  return true;
}

void CHostRun::ExplainNotStarted(const std::string& what) {
  std::string root;
  if (!ConfiguredToolRoot(root)) {
    Complain(what +
             ": no Korvex installation root is configured (use --tool-root or "
             "--registry); the module did not start");
  } else {
    Complain(what + ": Korvex is not installed (" + root + korvex::kExecutableName +
             " is missing); the module did not start");
  }
}

void CHostRun::Build(SipJson& request, const CRequestStep& step, unsigned int cabinet) {
  JsonValue& command = request.GetCmd();
  request.SetCmdValue(command, "OC", step.m_Opcode, 0);
  request.SetCmdValue(command, "CA", cabinet, 0);
  request.SetCmdValue(command, "TO", step.m_TimeoutSec, 1);
  if (step.m_Data == nullptr) return;
  JsonValue text(step.m_Data->c_str(), static_cast<rapidjson::SizeType>(step.m_Data->size()),
                 request.Allocator());
  command.AddMember("DA", text, request.Allocator());
}

bool CHostRun::Send(const CRequestStep& step, SipJson& request, int& result) {
  return Deliver(step, request, m_NextTag++, result);
}

bool CHostRun::Deliver(const CRequestStep& step, SipJson& request, std::uint64_t tag, int& result) {
  Build(request, step, m_Options.m_Cabinet);
  try {
    result = m_Switch.Deliver(m_Instance.Module(), request, tag);
    return true;
  } catch (const std::exception& e) {
    Complain(step.m_What + ": the module threw: " + e.what());
  } catch (...) {
    Complain(step.m_What + ": the module threw");
  }
  return false;
}

int CHostRun::Exchange(const CRequestStep& step, const CAwaitStep& await, CProgress& progress,
                       CExchanged& done) {
  SipJson request;
  const std::uint64_t tag = m_NextTag++;
  const EmClock::time_point start = EmClock::now();
  int result = 0;
  if (!Deliver(step, request, tag, result)) return kExitSetup;
  done.m_Status = request.Status();
  if (done.m_Status == korvex::kStatusQueued) {
    progress.State(await.m_Announce);
    const int ended = AwaitReply(step, await, tag, progress, done.m_Status);
    if (ended >= 0) return ended;
  }
  done.m_Seconds = SecondsSince(start);
  return -1;
}

int CHostRun::AwaitReply(const CRequestStep& step, const CAwaitStep& await, std::uint64_t tag,
                         CProgress& progress, unsigned int& status) {
  CReply reply;
  int signo = 0;
  switch (Await(tag, await, progress, reply, signo)) {
    case Outcome::kSignal:
      return Interrupted(progress, signo, await.m_Ends);
    case Outcome::kTimedOut:
      return TimedOut(progress, step.m_What, await.m_LimitSec, await.m_Ends);
    case Outcome::kReply:
      break;
  }
  status = reply.m_Status;
  return -1;
}

CHostRun::Outcome CHostRun::Await(std::uint64_t tag, const CAwaitStep& await, CProgress& progress,
                                  CReply& reply, int& signo) {
  using Woken = korvex::CWaiter::Woken;
  const korvex::CWaiter waiter(m_Listener.WakeFd(), m_Signals.Fd());
  const EmClock::time_point start = EmClock::now();
  const double limit = await.m_LimitSec;
  for (;;) {
    if (m_Listener.TakeReply(tag, reply)) return Outcome::kReply;
    const double elapsed = SecondsSince(start);
    if (limit != 0 && elapsed >= limit) return Outcome::kTimedOut;
    progress.Tick(await.m_Running, elapsed, await.m_Detail ? await.m_Detail(elapsed) : "");
    // Wake at the next whole second (for the display) or at the limit.
    double until = std::floor(elapsed) + 1.0;
    if (limit != 0) until = std::min(until, limit);
    const auto deadline =
        start + std::chrono::duration_cast<EmClock::duration>(std::chrono::duration<double>(until));
    const Woken woken = waiter.WaitUntil(deadline);
    if (woken == Woken::kError) return Outcome::kTimedOut;
    if (woken == Woken::kWake) m_Listener.Drain();
    if (woken != Woken::kSignal) continue;
    signo = m_Signals.Take();
    if (signo != 0) return Outcome::kSignal;
  }
}

// Ctrl-C, SIGTERM, a hang-up and the like: the running tool's tree is
// told to end first (it gets its grace period at once, not only after the
// module's worker has been waited for), then the module is stopped (and
// the switch cancels a copy to the BMC first).
int CHostRun::Interrupted(CProgress& progress, int signo, const char* ends) {
  progress.ClearTick();
  const char* name = ::sigabbrev_np(signo);
  const bool plain = signo == SIGINT || signo == SIGTERM;
  Complain(std::string(signo == SIGINT ? "interrupted" : "terminated") +
           (plain ? std::string() : std::string(" by SIG") + (name ? name : "?")) +
           "; stopping the module, which " + ends);
  halvane::TerminateRunningTools(1);
  StopModule();
  return ExitStatusForSignal(signo);
}

int CHostRun::TimedOut(CProgress& progress, const std::string& what, unsigned int limitSec,
                       const char* ends) {
  progress.ClearTick();
  Complain(what + ": no answer within " + std::to_string(limitSec) +
           " s; stopping the module, which " + ends);
  halvane::TerminateRunningTools(1);
  StopModule();
  Complain(what + ": module stopped");
  return kExitTimeout;
}

std::string CHostRun::TransferProgressText(double seconds) {
  CTransferProgress copy;
  if (!m_StandIn.TransferProgress(copy)) return std::string();
  return ::TransferProgressText(copy.m_Copied, copy.m_Total, seconds);
}

int CHostRun::Serve() {
  if (!Load()) return kExitSetup;
  // The session takes over the switch's events from here on.
  m_Switch.SetListener(nullptr);
  if (!Bring(!m_Options.m_NoStart, nullptr)) return kExitSetup;
  // Events go through a stream that gives up on a stalled reader when a
  // signal comes, so a signal always ends the session.
  CEventOutput output(STDOUT_FILENO, m_Signals.Fd());
  CServeSession session(m_Library, m_Instance, m_Switch, m_Signals, STDIN_FILENO,
                        output.Stream() != nullptr ? output.Stream() : stdout);
  return session.Run();
}
