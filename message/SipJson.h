// SipJson: one request or reply, {"SIP":{"V":1,"CMD":[...]}}, with the index
// of the command being worked on. Header readers are tolerant: a missing
// envelope, command or member reads as the field's fallback (0, or 22 for
// the status), never as an error.
#pragma once

#include "message/DataStruct.h"

#include <string>
#include <vector>

// Keeps m_pszExtra ahead of the document in the object, where the host's
// layout has it.
struct CSipJsonExtra {
  char* m_pszExtra = nullptr;  // optional heap string owned by the message
};

class SipJson : public CSipJsonExtra, public CDataStruct {
 public:
  SipJson();                       // ClassInit
  SipJson(const SipJson& source);  // the message copy rule
  SipJson& operator=(const SipJson& source);
  ~SipJson();                      // frees m_pszExtra

  // Empty layout: {"SIP":{"V":1,"CMD":[]}}, index 0, m_pszExtra null (not freed).
  void ClassInit();
  // The copy rule used when a message is queued: ClassInit, deep copy of the
  // root into this document, index copied, m_pszExtra duplicated (calloc)
  // when set. This message's own previous string is freed, as it owns it.
  // Copying a message onto itself changes nothing.
  void CopyFrom(const SipJson& source);

  unsigned int ModuleIndex() const;
  unsigned int ModuleLayer() const;
  unsigned int ObjectId() const;
  unsigned int OpCode() const;
  unsigned int OpCodeExt() const;
  unsigned int CabinetNr() const;
  unsigned int Status() const;  // 22 when absent
  // Writes "ST" of the current command, padding "CMD" as GetCmd does; writes
  // nothing when the current command is not an object (or, as GetCmd, when
  // there is no envelope or the index is negative).
  void SetStatus(unsigned int status);

  // The current command, for writing; pads "CMD" up to the index first (the
  // first padding element is an empty object, further ones null). Without a
  // "SIP" object holding a "CMD" array, or with a negative index, nothing is
  // written and a detached null value is returned.
  JsonValue& GetCmd();
  unsigned int GetCmdValue(int index, const char* name, unsigned int defaultValue) const;
  int SetCmdValue(JsonValue& cmd, const char* name, unsigned int value, int omitWhenZero);
  unsigned char GetCmdDataType(int index) const;
  bool GetCmdDataStream(int index, std::vector<unsigned char>& out) const;
  bool GetDataString(std::string& out) const;
  unsigned int UIntValue() const;

  // Member name of command index along the header path, or null when any
  // step of the path is missing.
  const JsonValue* FindCmdMember(int index, const char* name) const;

  // The member names the message model writes. Members are added with
  // references to these arrays, not with copies; one definition for the
  // whole program, so their addresses are those stored in the document.
  static constexpr char kKeySip[] = "SIP";
  static constexpr char kKeyVersion[] = "V";
  static constexpr char kKeyCmd[] = "CMD";
  static constexpr char kKeyStatus[] = "ST";
  static constexpr char kKeyData[] = "DA";
  static constexpr char kKeyRaw[] = "RAW";

  // "CMD" is never padded beyond this many elements: an absurd index would
  // otherwise have GetCmd/SetStatus allocate without bound.
  static constexpr int kMaxPaddedCommands = 65536;

  int m_CmdIndex;

 private:
  // The current command after padding "CMD" up to m_CmdIndex, or null when
  // the envelope is not {"SIP":{"CMD":[...]}} or the index is negative or
  // beyond kMaxPaddedCommands; the document is then left unchanged.
  JsonValue* PadToCurrentCmd();

  // What GetCmd hands out when there is no command to hand out: a null
  // value of this message, reset on every such call. Writes into it (which
  // SetCmdValue refuses anyway, it not being an object) never reach the
  // document.
  JsonValue m_Detached;
};
