// SipJson: one request or reply, {"SIP":{"V":1,"CMD":[...]}}, with the index
// of the command being worked on. Header readers are tolerant: a missing
// envelope, command or member reads as the field's fallback (0, or 22 for
// the status), never as an error.
#pragma once

#include <string>
#include <vector>

#include "message/DataStruct.h"

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
  // root into this document, index copied, m_pszExtra duplicated when set.
  void CopyFrom(const SipJson& source);

  unsigned int ModuleIndex() const;
  unsigned int ModuleLayer() const;
  unsigned int ObjectId() const;
  unsigned int OpCode() const;
  unsigned int OpCodeExt() const;
  unsigned int CabinetNr() const;
  unsigned int Status() const;  // 22 when absent
  void SetStatus(unsigned int status);

  // The current command, for writing; pads "CMD" up to the index first.
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

  int m_CmdIndex;
};
