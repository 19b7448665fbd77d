// One run of an em-host command: the loaded module library, the switch
// with its BMC stand-in, and the module instance, with the steps every
// command is made of - load, bring up (create, properties, cabinet,
// start), send a request, await its reply with progress, signal and
// time-out handling, and stop the module.
#pragma once

#include "host/emhost/bmc/HtiStandIn.h"
#include "host/emhost/cli/CommandListener.h"
#include "host/emhost/cli/Options.h"
#include "host/emhost/cli/Output.h"
#include "host/emhost/loader/ModuleHost.h"
#include "host/emhost/switch/HostSwitch.h"

#include <cstdint>
#include <functional>
#include <string>

class CSignalWatch;
class SipJson;

// A request of a command: what it is called in messages ("create",
// "collect"), its opcode, its "TO" and its "DA" (none when null).
struct CRequestStep {
  std::string m_What;
  unsigned int m_Opcode = 0;
  unsigned int m_TimeoutSec = 0;
  const std::string* m_Data = nullptr;
};

// How a queued request's reply is awaited: the state line when it was
// queued, the text of the wait's progress (with the detail's text on a
// terminal, when given), the limit (0: none) and what stopping the module
// then ends (for the operator).
struct CAwaitStep {
  std::string m_Announce;
  std::string m_Running;
  unsigned int m_LimitSec = 0;
  const char* m_Ends = nullptr;
  std::function<std::string(double)> m_Detail;
};

// The outcome of an exchange: the final status and how long it took.
struct CExchanged {
  unsigned int m_Status = 0;
  double m_Seconds = 0;
};

class CHostRun {
 public:
  static constexpr const char* kEndsTool = "ends a running Korvex";
  static constexpr const char* kEndsCopy = "cancels the copy to the BMC";

  CHostRun(const CEmHostOptions& options, CSignalWatch& signals);
  ~CHostRun();
  CHostRun(const CHostRun&) = delete;
  CHostRun& operator=(const CHostRun&) = delete;

  const CEmHostOptions& Options() const { return m_Options; }

  // Loads the library; reports and returns false on failure.
  bool Load();
  // EM_GetModuleName, EM_Create, GetProperties, SetServerCabinetNumber
  // and, when start is set, Start. startResult gets Start's result.
  bool Bring(bool start, int* startResult);
  // Load and Bring with Start, for the commands that need the module's
  // worker, which Start only runs when the tool is installed; reports why
  // it did not start.
  bool StartForJob(const std::string& what);

  // Delivers the request (built into request); false (reported) when the
  // module throws.
  bool Send(const CRequestStep& step, SipJson& request, int& result);
  // Sends the request and, when it is queued, awaits its reply. -1 when
  // an answer came (in done), else the exit status (the module threw, a
  // signal came, or no answer in time: the module was stopped).
  int Exchange(const CRequestStep& step, const CAwaitStep& await, CProgress& progress,
               CExchanged& done);

  // The progress of the copy to the BMC under way, in words ("" when none).
  std::string TransferProgressText(double seconds);
  // What the file transfer said about its last answer ("" when nothing).
  std::string TransferMessage() { return m_StandIn.TransferMessage(); }
  // The digest recorded for path by the last verified copy, if any.
  std::string StoredSha256(const std::string& path) { return m_StandIn.StoredSha256(path); }
  // Whether that copy replaced an earlier file of the name.
  bool StoredOverEarlier(const std::string& path) { return m_StandIn.StoredOverEarlier(path); }

  // EM_SetupAction.
  unsigned int SetupAction(unsigned int action) { return m_Library.SetupAction(action); }
  // For info: what Bring found.
  const std::string& ModuleName() const { return m_ModuleName; }
  int PropertiesResult() const { return m_PropertiesResult; }
  const _ExtensionModuleProperties& Properties() const { return m_Instance.Properties(); }
  const char* InstanceName() { return m_Instance.Module().GetName(); }
  const std::string& LibraryPath() const { return m_Library.Path(); }

  // Loads the module and hands the run to a serve session on standard
  // input and output; returns its exit status.
  int Serve();

 private:
  enum class Outcome { kReply, kTimedOut, kSignal };

  // A copy in flight is cancelled first (it never appears), then the module
  // is stopped, which ends a running tool.
  void StopModule();
  static void Build(SipJson& request, const CRequestStep& step, unsigned int cabinet);
  bool Deliver(const CRequestStep& step, SipJson& request, std::uint64_t tag, int& result);
  // -1 with the reply's status, else the exit status.
  int AwaitReply(const CRequestStep& step, const CAwaitStep& await, std::uint64_t tag,
                 CProgress& progress, unsigned int& status);
  Outcome Await(std::uint64_t tag, const CAwaitStep& await, CProgress& progress, CReply& reply,
                int& signo);
  int Interrupted(CProgress& progress, int signo, const char* ends);
  int TimedOut(CProgress& progress, const std::string& what, unsigned int limitSec,
               const char* ends);
  void ExplainNotStarted(const std::string& what);

  const CEmHostOptions& m_Options;
  CSignalWatch& m_Signals;
  CModuleLibrary m_Library;
  CCommandListener m_Listener;
  CHtiStandIn m_StandIn;  // the handler of 0xF052; outlives the switch's use of it
  CHostSwitch m_Switch;
  CModuleInstance m_Instance;
  std::string m_ModuleName;
  int m_PropertiesResult = 0;
  std::uint64_t m_NextTag = 1;
};
