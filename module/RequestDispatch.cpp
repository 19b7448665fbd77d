// Request dispatch on the switch's thread (ModuleRequest) and the execution
// of queued requests on the worker thread (OnTaskExecution).
#include "frame/Trace.h"
#include "module/EM_KORVEX.h"
#include "module/ModuleConstants.h"

#include <string>

namespace {

// "EM_KORVEX (REQUEST)" and the like: the module's name and a suffix.
std::string Label(const char* name, const char* suffix) { return std::string(name) + suffix; }

}  // namespace

int EM_KORVEX::ModuleRequest(SipJson& request) {
  int result = 0;
  try {
    const unsigned int opcode = request.OpCode();
    const bool ownFamily = (opcode & korvex::kOpcodeFamilyMask) == korvex::kOpcodeFamily;

    if (ownFamily && KorvexTraceOn()) {
      CExtensionModule::TraceSip(2, Label(GetName(), " (REQUEST)").c_str(), request);
    }

    request.SetStatus(korvex::kStatusTaken);

    const unsigned int cabinet = request.CabinetNr();
    if (cabinet != CExtensionModule::ServerCabinetNr && cabinet != korvex::kAllCabinets) {
      request.SetStatus(korvex::kStatusOtherCabinet);
      KORVEX_TRACE(4, "\nEM_KORVEX           : Request not for server cabinet -> refused");
      return 0;
    }
    result = 1;  // accepted: an exception from here on still reports it taken
    result = DispatchOpcode(request, opcode);

    if (ownFamily && KorvexTraceOn()) {
      CExtensionModule::TraceSip(2, Label(GetName(), " (RETURN)").c_str(), request);
    }
    return result;
  } catch (...) {
    ReportException(request);
    return result;
  }
}

int EM_KORVEX::DispatchOpcode(SipJson& request, unsigned int opcode) {
  switch (opcode) {
    case korvex::kOpcodeCreateArchive:
      KORVEX_TRACE(3, "\n");
      KORVEX_TRACE(2,
                   "\nEM_KORVEX           : -> Initiate Korvex archive creation, may take "
                   "several minutes (queue this request)");
      QueueRequest(request);
      return 1;
    case korvex::kOpcodeTransferArchive:
      KORVEX_TRACE(3, "\n");
      KORVEX_TRACE(2, "\nEM_KORVEX           : -> Initiate Korvex archive transfer to BMC");
      QueueRequest(request);
      return 1;
    case korvex::kOpcodeIsInstalled:
      AnswerIsInstalled(request);
      return 1;
    default:
      return 0;  // not this module's: status 1 stands
  }
}

void EM_KORVEX::QueueRequest(SipJson& request) {
  // A refused insertion (queue full, module stopped) is acknowledged all the
  // same and never answered; the switch has always lived with that, so the
  // result is deliberately not looked at.
  InsertTask(request, TASK_PRIORITY_0, nullptr);
  request.SetStatus(korvex::kStatusQueued);
}

void EM_KORVEX::AnswerIsInstalled(SipJson& request) {
  const bool installed = __atomic_load_n(&m_Installed, __ATOMIC_RELAXED) != 0;
  KORVEX_TRACE(2, "\nEM_KORVEX           : -> Korvex is%s installed", installed ? "" : " NOT");
  JsonValue& command = request.GetCmd();
  if (command.IsObject()) {
    request.SetCmdValue(command, "DA", installed ? 1u : 0u, 0);
  }
  request.SetStatus(korvex::kStatusDone);
}

void EM_KORVEX::ReportException(SipJson& request) {
  // Nothing may reach the switch's thread. Even the status write and the
  // trace can fail on a malformed message; then the message stays as it is.
  try {
    request.SetStatus(korvex::kStatusException);
  } catch (...) {
  }
  try {
    KORVEX_TRACE(1,
                 "\nEM_KORVEX           : ## EXCEPTION! CABID %04d: OpCode 0x%04X-0x%04X ObjId "
                 "0x%04X Status 0x%02X",
                 request.CabinetNr(), request.OpCode(), request.OpCodeExt(), request.ObjectId(),
                 request.Status());
  } catch (...) {
  }
}

void EM_KORVEX::OnTaskExecution(SipJson& task, _TaskPriority /*priority*/) {
  const unsigned int opcode = task.OpCode();
  if (opcode == korvex::kOpcodeCreateArchive) {
    KORVEX_TRACE(3, "\n");
    KORVEX_TRACE(
        2,
        "\nEM_KORVEX           : Create Korvex archive, may take several minutes (async in "
        "TaskSerializer)");
    StartArchiveCreation(task);
    if (m_pSwitch != nullptr) {
      m_pSwitch->SendReply(this, task);
    }
  } else if (opcode == korvex::kOpcodeTransferArchive) {
    KORVEX_TRACE(3, "\n");
    KORVEX_TRACE(
        2, "\nEM_KORVEX           : Transfer Korvex archive to BMC (async in TaskSerializer)");
    TransferArchiveToBmc(task);
    if (m_pSwitch != nullptr) {
      m_pSwitch->SendReply(this, task);
    }
  } else {
    KORVEX_TRACE(
        1,
        "\nEM_KORVEX           : ## ERROR! Unhandled OpCode 0x%04X to be executed in task - "
        "fix this!",
        opcode);
  }
}
