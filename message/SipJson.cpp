// SipJson: the message envelope, its header readers and status, the command
// members and the readers of the command data "DA" in its encodings.
#include "message/SipJson.h"

#include "message/RapidJsonUtil.h"
#include "message/StringMapper.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr unsigned int kStatusAbsent = 22;  // a command without "ST" reads as queued

// The low 32 bits of a number's integer value; the signed and the unsigned
// reading of an integer give the same bits. A value the library holds no
// integer for (a fraction, a string, ...) yields the caller's fallback
// rather than tripping the library's type assertion.
unsigned int Low32(const JsonValue& value, unsigned int fallback) {
  if (value.IsUint64()) {
    return static_cast<unsigned int>(value.GetUint64());
  }
  if (value.IsInt64()) {
    return static_cast<unsigned int>(static_cast<uint64_t>(value.GetInt64()));
  }
  return fallback;
}

// The first member of object (which must be an object) whose name has
// exactly these length bytes, or MemberEnd(): the library's FindMember
// rule. Done here rather than by the library, which builds a name value,
// asserts on every member it passes and calls memcmp for every name of the
// same length - and every header key has two letters. These lookups were
// most of what a request cost the module.
template <class Value>
auto FindKey(Value& object, const char* name, std::size_t length)
    -> decltype(object.MemberBegin()) {
  auto member = object.MemberBegin();
  const auto end = object.MemberEnd();
  for (; member != end; ++member) {
    const JsonValue& key = member->name;
    if (key.GetStringLength() != length) continue;
    const char* text = key.GetString();
    std::size_t i = 0;
    while (i < length && text[i] == name[i]) ++i;
    if (i == length) break;
  }
  return member;
}

template <class Value>
auto FindKey(Value& object, const char* name) -> decltype(object.MemberBegin()) {
  return FindKey(object, name, std::strlen(name));
}

// The same for the model's own key literals, whose length is known.
template <class Value, std::size_t N>
auto FindConstKey(Value& object, const char (&name)[N]) -> decltype(object.MemberBegin()) {
  return FindKey(object, name, N - 1);
}

// The "RAW" member of a "DA" object when it is an array, else null.
const JsonValue* RawArray(const JsonValue& data) {
  JsonValue::ConstMemberIterator raw = FindConstKey(data, SipJson::kKeyRaw);
  if (raw == data.MemberEnd() || !raw->value.IsArray()) {
    return nullptr;
  }
  return &raw->value;
}

// A "RAW" array that holds a byte block: not empty and its first element an
// unsigned 32-bit number. Only the first element is tested; later elements
// that are not integers count as 0.
bool IsByteBlock(const JsonValue* raw) {
  return raw != nullptr && !raw->Empty() && (*raw)[0].IsUint();
}

}  // namespace

SipJson::SipJson() : m_CmdIndex(0) { ClassInit(); }

SipJson::SipJson(const SipJson& source) : CSipJsonExtra(), CDataStruct(), m_CmdIndex(0) {
  CopyFrom(source);
}

SipJson& SipJson::operator=(const SipJson& source) {
  CopyFrom(source);
  return *this;
}

SipJson::~SipJson() { std::free(m_pszExtra); }

void SipJson::ClassInit() {
  JsonAllocator& a = Allocator();
  m_Document.SetObject();
  m_CmdIndex = 0;
  // Not freed: whoever set the string releases it first (CopyFrom does).
  m_pszExtra = nullptr;

  JsonValue sip(rapidjson::kObjectType);
  JsonValue version(1u);
  JsonValue commands(rapidjson::kArrayType);
  sip.AddMember(rapidjson::StringRef(kKeyVersion), version, a);
  sip.AddMember(rapidjson::StringRef(kKeyCmd), commands, a);
  m_Document.AddMember(rapidjson::StringRef(kKeySip), sip, a);
}

void SipJson::CopyFrom(const SipJson& source) {
  if (&source == this) {
    return;
  }
  char* previousExtra = m_pszExtra;
  ClassInit();
  CRapidJsonUtil::CopyObject<JsonEncoding, JsonAllocator>(m_Document, source.m_Document,
                                                          Allocator());
  m_CmdIndex = source.m_CmdIndex;
  if (source.m_pszExtra != nullptr) {
    const std::size_t length = std::strlen(source.m_pszExtra);
    m_pszExtra = static_cast<char*>(std::calloc(length + 1, 1));
    if (m_pszExtra != nullptr) {
      std::strcpy(m_pszExtra, source.m_pszExtra);
    }
  }
  std::free(previousExtra);
}

const JsonValue* SipJson::FindCmdMember(int index, const char* name) const {
  if (name == nullptr || index < 0 || !m_Document.IsObject()) {
    return nullptr;
  }
  JsonValue::ConstMemberIterator sip = FindConstKey(m_Document, kKeySip);
  if (sip == m_Document.MemberEnd() || !sip->value.IsObject()) {
    return nullptr;
  }
  JsonValue::ConstMemberIterator cmd = FindConstKey(sip->value, kKeyCmd);
  if (cmd == sip->value.MemberEnd() || !cmd->value.IsArray() ||
      static_cast<rapidjson::SizeType>(index) >= cmd->value.Size()) {
    return nullptr;
  }
  const JsonValue& command = cmd->value[static_cast<rapidjson::SizeType>(index)];
  if (!command.IsObject()) {
    return nullptr;
  }
  JsonValue::ConstMemberIterator member = FindKey(command, name);
  if (member == command.MemberEnd()) {
    return nullptr;
  }
  return &member->value;
}

unsigned int SipJson::GetCmdValue(int index, const char* name, unsigned int defaultValue) const {
  const JsonValue* member = FindCmdMember(index, name);
  return member != nullptr ? Low32(*member, defaultValue) : defaultValue;
}

unsigned int SipJson::ModuleIndex() const { return GetCmdValue(m_CmdIndex, "MI", 0) & 0xFFFFu; }

unsigned int SipJson::ModuleLayer() const { return GetCmdValue(m_CmdIndex, "MI", 0) >> 16; }

unsigned int SipJson::ObjectId() const { return GetCmdValue(m_CmdIndex, "OI", 0); }

unsigned int SipJson::OpCode() const { return GetCmdValue(m_CmdIndex, "OC", 0); }

unsigned int SipJson::OpCodeExt() const { return GetCmdValue(m_CmdIndex, "OE", 0); }

unsigned int SipJson::CabinetNr() const { return GetCmdValue(m_CmdIndex, "CA", 0); }

unsigned int SipJson::Status() const { return GetCmdValue(m_CmdIndex, kKeyStatus, kStatusAbsent); }

JsonValue* SipJson::PadToCurrentCmd() {
  if (m_CmdIndex < 0 || m_CmdIndex >= kMaxPaddedCommands || !m_Document.IsObject()) {
    return nullptr;
  }
  JsonValue::MemberIterator sip = FindConstKey(m_Document, kKeySip);
  if (sip == m_Document.MemberEnd() || !sip->value.IsObject()) {
    return nullptr;
  }
  JsonValue::MemberIterator cmd = FindConstKey(sip->value, kKeyCmd);
  if (cmd == sip->value.MemberEnd() || !cmd->value.IsArray()) {
    return nullptr;
  }
  JsonValue& commands = cmd->value;
  const rapidjson::SizeType index = static_cast<rapidjson::SizeType>(m_CmdIndex);
  // One template value is handed over by every append: the first append
  // takes the empty object and leaves null behind, so any further padding
  // elements are null (and a current command two or more beyond the end is
  // null, not an object). Hosts rely on exactly this shape.
  JsonValue padding(rapidjson::kObjectType);
  while (commands.Size() <= index) {
    CRapidJsonUtil::AppendElement(commands, padding, Allocator());
  }
  return &commands[index];
}

void SipJson::SetStatus(unsigned int status) {
  JsonValue* command = PadToCurrentCmd();
  if (command == nullptr || !command->IsObject()) {
    return;
  }
  JsonValue value(status);
  JsonValue::MemberIterator member = FindConstKey(*command, kKeyStatus);
  if (member != command->MemberEnd()) {
    member->value.Swap(value);
  } else {
    command->AddMember(rapidjson::StringRef(kKeyStatus), value, Allocator());
  }
}

JsonValue& SipJson::GetCmd() {
  JsonValue* command = PadToCurrentCmd();
  if (command != nullptr) {
    return *command;
  }
  m_Detached.SetNull();
  return m_Detached;
}

int SipJson::SetCmdValue(JsonValue& cmd, const char* name, unsigned int value, int omitWhenZero) {
  if (!cmd.IsObject() || name == nullptr) {
    return 0;
  }
  if (value == 0 && omitWhenZero != 0) {
    // The library's removal moves the last member into the gap.
    const JsonValue::MemberIterator member = FindKey(cmd, name);
    if (member != cmd.MemberEnd()) {
      cmd.RemoveMember(member);
    }
    return 1;
  }
  JsonValue number(value);
  JsonValue::MemberIterator member = FindKey(cmd, name);
  if (member != cmd.MemberEnd()) {
    member->value.Swap(number);
  } else {
    // The name is referenced, not copied: callers pass literals.
    cmd.AddMember(rapidjson::StringRef(name), number, Allocator());
  }
  return 1;
}

unsigned char SipJson::GetCmdDataType(int index) const {
  const JsonValue* data = FindCmdMember(index, kKeyData);
  return static_cast<unsigned char>(data != nullptr ? data->GetType() : rapidjson::kNullType);
}

namespace {

// The bytes of "DA" in each of its encodings; see GetCmdDataStream.

// An object: its "RAW" byte block, or nothing when it has none.
void ObjectBytes(const JsonValue& data, std::vector<unsigned char>& out) {
  out.clear();
  const JsonValue* raw = RawArray(data);
  if (!IsByteBlock(raw)) return;
  for (JsonValue::ConstValueIterator it = raw->Begin(); it != raw->End(); ++it) {
    out.push_back(static_cast<unsigned char>(Low32(*it, 0) & 0xFFu));
  }
}

// An array of texts: each text and a 0, and a final 0; nothing when the
// first element is not a text.
void TextListBytes(const JsonValue& data, std::vector<unsigned char>& out) {
  out.clear();
  if (data.Empty() || !data[0].IsString()) return;
  for (JsonValue::ConstValueIterator it = data.Begin(); it != data.End(); ++it) {
    // Only the first element is tested; a later non-text counts as "".
    if (it->IsString()) {
      const std::string bytes = CStringMapper::StringToUTF8(it->GetString());
      out.insert(out.end(), bytes.begin(), bytes.end());
    }
    out.push_back(0);
  }
  out.push_back(0);
}

// A whole number: its bytes, least significant first, in the narrowest of
// 1, 2, 4 or 8 that holds it; false for a negative number or a fraction.
bool NumberBytes(const JsonValue& data, std::vector<unsigned char>& out) {
  if (!data.IsUint() && !data.IsUint64()) {
    return false;
  }
  const uint64_t v = data.GetUint64();
  std::size_t count = 1;
  if (v > 0xFFFFFFFFull) {
    count = 8;
  } else if (v > 0xFFFFull) {
    count = 4;
  } else if (v > 0xFFull) {
    count = 2;
  }
  out.clear();
  for (std::size_t i = 0; i < count; ++i) {
    out.push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xFFu));
  }
  return true;
}

}  // namespace

bool SipJson::GetCmdDataStream(int index, std::vector<unsigned char>& out) const {
  const JsonValue* data = FindCmdMember(index, kKeyData);
  if (data == nullptr) {
    return false;
  }
  switch (data->GetType()) {
    case rapidjson::kObjectType:
      ObjectBytes(*data, out);
      return true;
    case rapidjson::kArrayType:
      TextListBytes(*data, out);
      return true;
    case rapidjson::kNumberType:
      return NumberBytes(*data, out);
    case rapidjson::kStringType: {
      const std::string bytes = CStringMapper::StringToUTF8(data->GetString());
      out.assign(bytes.begin(), bytes.end());
      out.push_back(0);
      return true;
    }
    default:
      return false;
  }
}

bool SipJson::GetDataString(std::string& out) const {
  const JsonValue* data = FindCmdMember(m_CmdIndex, kKeyData);
  if (data == nullptr) {
    return false;
  }
  switch (data->GetType()) {
    case rapidjson::kNullType:
      out.clear();
      return true;
    case rapidjson::kStringType:
      out = CStringMapper::StringToUTF8(data->GetString());
      return true;
    case rapidjson::kObjectType: {
      out.clear();
      const JsonValue* raw = RawArray(*data);
      if (!IsByteBlock(raw)) {
        return false;
      }
      std::string bytes;
      for (JsonValue::ConstValueIterator it = raw->Begin(); it != raw->End(); ++it) {
        bytes.push_back(static_cast<char>(Low32(*it, 0) & 0xFFu));
      }
      // The text ends at its first 0 byte; a leading 0 leaves it empty.
      out = CStringMapper::StringToUTF8(bytes.c_str());
      return true;
    }
    default:
      return false;
  }
}

unsigned int SipJson::UIntValue() const {
  const JsonValue* data = FindCmdMember(m_CmdIndex, kKeyData);
  if (data == nullptr) {
    return 0;
  }
  switch (data->GetType()) {
    case rapidjson::kTrueType:
      return 1;
    case rapidjson::kNumberType:
      if (data->IsInt()) {
        return static_cast<unsigned int>(data->GetInt());  // two's-complement bits
      }
      if (data->IsUint()) {
        return data->GetUint();
      }
      return 0;  // a fraction, or beyond 32 bits
    case rapidjson::kObjectType: {
      const JsonValue* raw = RawArray(*data);
      if (raw == nullptr) {
        return 0;
      }
      const rapidjson::SizeType n = raw->Size();
      auto element = [raw, n](rapidjson::SizeType i) {
        return i < n ? Low32((*raw)[i], 0) : 0u;  // a missing fourth element is 0
      };
      if (n == 0) {
        return 0;
      }
      if (n == 1) {
        return element(0);  // whole, not masked to a byte
      }
      if (n == 2) {
        return ((element(1) & 0xFFu) << 8) | (element(0) & 0xFFu);
      }
      // Three or more: whole values added (not masked, not or-ed), wrapping
      // at 32 bits. The three cases differ on purpose; the hosts read it so.
      return element(0) + (element(1) << 8) + (element(2) << 16) + (element(3) << 24);
    }
    default:
      return 0;  // false, null, string, array
  }
}
