// CExtensionModule::TraceSip: the one-line summary of a message in the
// host's common trace format (label, opcode-extension, object id, optional
// cabinet, module id, status, optional data). All modules of the host print
// messages in these eight formats, so the text is fixed to the byte.
#include "frame/ExtensionModule.h"
#include "frame/Trace.h"
#include "message/JsonTypes.h"
#include "message/SipJson.h"

#include <string>
#include <vector>

namespace {

// Whether the command at index exists as an object along "SIP"/"CMD" and has
// a member of this name. Every step is type-tested, so a message of any shape
// is answered without touching the library's type assertions.
bool CommandHasMember(const SipJson& message, int index, const char* name) {
  const JsonValue& root = message.Document();
  if (!root.IsObject()) return false;
  const JsonValue::ConstMemberIterator sip = root.FindMember("SIP");
  if (sip == root.MemberEnd() || !sip->value.IsObject()) return false;
  const JsonValue::ConstMemberIterator cmd = sip->value.FindMember("CMD");
  if (cmd == sip->value.MemberEnd() || !cmd->value.IsArray()) return false;
  if (index < 0 || static_cast<rapidjson::SizeType>(index) >= cmd->value.Size()) return false;
  const JsonValue& command = cmd->value[static_cast<rapidjson::SizeType>(index)];
  if (!command.IsObject()) return false;
  return command.HasMember(name);
}

}  // namespace

void CExtensionModule::TraceSip(int level, const char* label, const SipJson& message) {
  if (!KorvexTraceOn()) return;

  const unsigned int traceLevel = static_cast<unsigned int>(level);
  const char* const text = label != nullptr ? label : "";
  const int index = message.m_CmdIndex;
  const bool hasCabinet = CommandHasMember(message, index, "CA");
  const bool hasData = CommandHasMember(message, index, "DA");

  const unsigned int opCode = message.OpCode();
  const unsigned int opCodeExt = message.OpCodeExt();
  const unsigned int objectId = message.ObjectId();
  const unsigned int layer = message.ModuleLayer() & 0xFFFFu;
  const unsigned int moduleIndex = message.ModuleIndex() & 0xFFFFu;
  const unsigned int status = message.Status();

  if (!hasData) {
    if (hasCabinet) {
      KORVEX_TRACE(traceLevel,
                   "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X",
                   text, opCode, opCodeExt, objectId, static_cast<int>(message.CabinetNr()), layer,
                   moduleIndex, status);
    } else {
      KORVEX_TRACE(traceLevel, "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X",
                   text, opCode, opCodeExt, objectId, layer, moduleIndex, status);
    }
    return;
  }

  const unsigned char dataType = message.GetCmdDataType(index);
  if (dataType == JSON_TYPE_NUMBER) {
    // Printed signed, as every module of the host prints it: values of 2^31
    // and above come out negative.
    const int value = static_cast<int>(message.UIntValue());
    if (hasCabinet) {
      KORVEX_TRACE(
          traceLevel,
          "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X Data %d",
          text, opCode, opCodeExt, objectId, static_cast<int>(message.CabinetNr()), layer,
          moduleIndex, status, value);
    } else {
      KORVEX_TRACE(traceLevel,
                   "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Data %d", text,
                   opCode, opCodeExt, objectId, layer, moduleIndex, status, value);
    }
  } else if (dataType == JSON_TYPE_STRING) {
    std::string data;
    message.GetDataString(data);
    if (hasCabinet) {
      KORVEX_TRACE(
          traceLevel,
          "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X Data "
          "\"%s\"",
          text, opCode, opCodeExt, objectId, static_cast<int>(message.CabinetNr()), layer,
          moduleIndex, status, data.c_str());
    } else {
      KORVEX_TRACE(traceLevel,
                   "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Data \"%s\"",
                   text, opCode, opCodeExt, objectId, layer, moduleIndex, status, data.c_str());
    }
  } else {
    std::vector<unsigned char> bytes;
    message.GetCmdDataStream(index, bytes);
    const int length = static_cast<int>(bytes.size());
    if (hasCabinet) {
      KORVEX_TRACE(
          traceLevel,
          "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X CABID %04d MID 0x%04X%04X Stat 0x%02X Len %d", text,
          opCode, opCodeExt, objectId, static_cast<int>(message.CabinetNr()), layer, moduleIndex,
          status, length);
    } else {
      KORVEX_TRACE(traceLevel,
                   "\n%-20s: OC 0x%04X-0x%04X OID 0x%04X MID 0x%04X%04X Stat 0x%02X Len %d", text,
                   opCode, opCodeExt, objectId, layer, moduleIndex, status, length);
    }
  }
}
