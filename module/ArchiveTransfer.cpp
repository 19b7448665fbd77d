// The archive transfer job (opcode 0x3402): ask the HTI module, through the
// switch, to copy the archive into the BMC, and pass its status back.
#include "frame/Trace.h"
#include "message/DataStruct.h"
#include "message/RapidJsonUtil.h"
#include "module/EM_KORVEX.h"
#include "module/ModuleConstants.h"
#include "util/FileStatus.h"

#include <string>
#include <sys/stat.h>

namespace {

// The file-transfer request for the HTI module: opcode 0xF052 with the
// archive, the name on the BMC side and the HTI module's time-out.
void BuildHtiRequest(SipJson& transfer, const char* archivePath, const std::string& bmcName,
                     unsigned int timeout) {
  JsonValue& command = transfer.GetCmd();
  command.SetObject();
  transfer.SetCmdValue(command, "OC", korvex::kOpcodeHtiFileTransfer, 0);
  transfer.SetCmdValue(command, "OE", 0, 1);
  transfer.SetCmdValue(command, "OI", 0, 1);
  transfer.SetCmdValue(command, "TO", timeout, 1);

  CDataStruct data;
  data.SetNumber("FileType", korvex::kKorvexFileType, 1);
  data.SetString("LocalFilePath", archivePath);
  data.SetString("BmcFilePath", bmcName.c_str());

  command.RemoveMember("DA");
  JsonValue dataCopy(rapidjson::kObjectType);
  CRapidJsonUtil::CopyValue(dataCopy, static_cast<const JsonValue&>(data.Document()),
                            transfer.Allocator());
  command.AddMember(JsonValue(rapidjson::StringRef("DA")), dataCopy, transfer.Allocator());
}

void TraceHtiRequest(const char* archivePath, const std::string& bmcName, unsigned int timeout) {
  KORVEX_TRACE(3,
               "\nEM_KORVEX (Transfer): Sending Korvex archive transfer down to HTI module "
               "(AsyncRequest)...");
  KORVEX_TRACE(3, "\nEM_KORVEX (Transfer):   local file: %s", archivePath);
  KORVEX_TRACE(3, "\nEM_KORVEX (Transfer):   BMC file:   %s", bmcName.c_str());
  KORVEX_TRACE(3, "\nEM_KORVEX (Transfer):   file type:  %d (Korvex)", korvex::kKorvexFileType);
  KORVEX_TRACE(3, "\nEM_KORVEX (Transfer):   timeout:    %d sec.", timeout);
}

}  // namespace

unsigned int EM_KORVEX::SendToHti(const std::string& bmcName, unsigned int timeout) {
  SipJson transfer;
  BuildHtiRequest(transfer, m_ArchivePath.c_str(), bmcName, timeout);
  TraceHtiRequest(m_ArchivePath.c_str(), bmcName, timeout);

  if (m_pSwitch != nullptr) {
    m_pSwitch->AsyncRequest(this, transfer, korvex::kTransferSwitchTimeout);
  } else {
    transfer.SetStatus(korvex::kStatusJobFailed);
  }

  // A HTI module that wrote no status leaves the "answer follows" value.
  const unsigned int commandStatus =
      transfer.GetCmdValue(transfer.m_CmdIndex, "ST", korvex::kStatusQueued);
  KORVEX_TRACE(3, "\nEM_KORVEX (Transfer): Korvex archive transfer finished, cmd status = 0x%02X",
               commandStatus);
  return commandStatus;
}

bool EM_KORVEX::TransferArchiveToBmc(SipJson& request) {
  if (__atomic_load_n(&m_SwitchShutdown, __ATOMIC_RELAXED) != 0) {
    request.SetStatus(korvex::kStatusJobFailed);
    KORVEX_TRACE(2,
                 "\n\nEM_KORVEX (Transfer): ## ERROR: SWITCH shutdown in progress - do not "
                 "transfer archive");
    return false;
  }

  // The file name on the BMC side: a string, or a "RAW" byte block up to its
  // first 0 byte; anything else leaves it empty and the HTI module decides.
  std::string bmcLocalName;
  request.GetDataString(bmcLocalName);
  unsigned int timeout = request.GetCmdValue(request.m_CmdIndex, "TO", 0) & korvex::kTimeoutMask;

  KORVEX_TRACE(3, "\nEM_KORVEX (Transfer): Transfer archive to BMC, timeout=%d sec.", timeout);
  if (!bmcLocalName.empty()) {
    KORVEX_TRACE(3, "\nEM_KORVEX (Transfer):   ...BMC local name = \"%s\"", bmcLocalName.c_str());
  }

  // One second less for the HTI module, so that its answer is back before
  // the requester gives up on ours.
  if (timeout >= 2) {
    timeout -= 1;
  }

  struct stat archive;
  if (korvex::FileStatus(m_ArchivePath.c_str(), archive) != 0) {
    request.SetStatus(korvex::kStatusNoArchive);
    KORVEX_TRACE(1,
                 "\n\nEM_KORVEX (Transfer): ## ERROR! Korvex archive does not exist - cannot "
                 "transfer file!\n");
    return false;
  }

  const unsigned int commandStatus = SendToHti(bmcLocalName, timeout);

  // The reply carries the status only: the requester's file name goes.
  JsonValue& incoming = request.GetCmd();
  if (incoming.IsObject()) {
    incoming.RemoveMember("DA");
  }
  request.SetCmdValue(incoming, "ST", commandStatus, 0);

  return commandStatus == korvex::kStatusDone;
}
