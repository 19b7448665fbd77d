// Fuzz target: arbitrary bytes parsed into a SipJson with any current
// command index, then every reader, the status and member writers, the
// message trace with tracing on, and a deep copy compared with what the
// copy rules make of its source.
//
// Input: byte 0 is the current command index (signed, -128..127), byte 1
// selects the value written and the nested mode of the data readers, the
// rest is the JSON text.
#include "frame/ExtensionModule.h"
#include "host/HostControl.h"
#include "message/DataStruct.h"
#include "message/RapidJsonUtil.h"
#include "message/SipJson.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "fuzz_sipjson: %s\n", what);
  std::abort();
}

void Check(bool condition, const char* what) {
  if (!condition) Fail(what);
}

// ---------------------------------------------------------------------------
// The copy rules, written out on their own: what a deep copy must give.

JsonValue StartValue(rapidjson::Type type) {
  // A number starts as null: a fraction is not copied and leaves it so.
  if (type == rapidjson::kNumberType) return JsonValue();
  return JsonValue(type);
}

void ExpectedCopyInto(JsonValue& dst, const JsonValue& src, JsonAllocator& a);

void ExpectedArray(JsonValue& dst, const JsonValue& src, JsonAllocator& a) {
  JsonValue array(rapidjson::kArrayType);
  if (src.Size() != 0) {
    const rapidjson::Type first = src[0].GetType();  // every element starts as this type
    for (const JsonValue& element : src.GetArray()) {
      JsonValue copy = StartValue(first);
      ExpectedCopyInto(copy, element, a);
      array.PushBack(copy, a);
    }
  }
  dst.Swap(array);
}

void ExpectedMembers(JsonValue& dst, const JsonValue& src, JsonAllocator& a) {
  JsonValue object(rapidjson::kObjectType);
  for (const auto& member : src.GetObject()) {
    JsonValue name(member.name.GetString(), member.name.GetStringLength(), a);
    JsonValue value = StartValue(member.value.GetType());
    ExpectedCopyInto(value, member.value, a);
    object.AddMember(name, value, a);
  }
  dst.Swap(object);
}

void ExpectedCopyInto(JsonValue& dst, const JsonValue& src, JsonAllocator& a) {
  switch (src.GetType()) {
    case rapidjson::kNullType:
      return;  // the start value stays
    case rapidjson::kFalseType:
    case rapidjson::kTrueType:
      dst.SetBool(src.IsTrue());
      return;
    case rapidjson::kObjectType:
      ExpectedMembers(dst, src, a);
      return;
    case rapidjson::kArrayType:
      ExpectedArray(dst, src, a);
      return;
    case rapidjson::kStringType: {
      JsonValue text(src.GetString(), src.GetStringLength(), a);
      dst.Swap(text);
      return;
    }
    case rapidjson::kNumberType:
      if (src.IsUint64()) {
        dst.SetUint64(src.GetUint64());
      } else if (src.IsInt64()) {
        dst.SetInt64(src.GetInt64());
      }
      return;
  }
}

// Equal in type, number marks, bytes and member order.
bool Same(const JsonValue& x, const JsonValue& y) {
  if (x.GetType() != y.GetType()) return false;
  switch (x.GetType()) {
    case rapidjson::kNumberType:
      if (x.IsInt() != y.IsInt() || x.IsUint() != y.IsUint() || x.IsInt64() != y.IsInt64() ||
          x.IsUint64() != y.IsUint64() || x.IsDouble() != y.IsDouble()) {
        return false;
      }
      if (x.IsUint64()) return x.GetUint64() == y.GetUint64();
      if (x.IsInt64()) return x.GetInt64() == y.GetInt64();
      return false;  // a fraction never reaches a copy
    case rapidjson::kStringType:
      return x.GetStringLength() == y.GetStringLength() &&
             std::memcmp(x.GetString(), y.GetString(), x.GetStringLength()) == 0;
    case rapidjson::kArrayType: {
      if (x.Size() != y.Size()) return false;
      for (rapidjson::SizeType i = 0; i < x.Size(); ++i) {
        if (!Same(x[i], y[i])) return false;
      }
      return true;
    }
    case rapidjson::kObjectType: {
      if (x.MemberCount() != y.MemberCount()) return false;
      auto a = x.MemberBegin();
      auto b = y.MemberBegin();
      for (; a != x.MemberEnd(); ++a, ++b) {
        if (!Same(a->name, b->name) || !Same(a->value, b->value)) return false;
      }
      return true;
    }
    default:
      return true;
  }
}

// No string of the copy lives in the source's storage.
bool SharesNothing(const JsonValue& copy, const JsonValue& source) {
  if (copy.IsString() && source.IsString() && copy.GetStringLength() != 0 &&
      copy.GetString() == source.GetString()) {
    return false;
  }
  if (copy.IsArray() && source.IsArray() && copy.Size() == source.Size()) {
    for (rapidjson::SizeType i = 0; i < copy.Size(); ++i) {
      if (!SharesNothing(copy[i], source[i])) return false;
    }
  }
  if (copy.IsObject() && source.IsObject() && copy.MemberCount() == source.MemberCount()) {
    auto a = copy.MemberBegin();
    auto b = source.MemberBegin();
    for (; a != copy.MemberEnd(); ++a, ++b) {
      if (a->name.GetString() == b->name.GetString()) return false;
      if (!SharesNothing(a->value, b->value)) return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------

std::size_t CountMembers(const JsonValue& object, const char* name) {
  std::size_t count = 0;
  if (!object.IsObject()) return 0;
  for (const auto& member : object.GetObject()) {
    if (member.name.GetStringLength() == std::strlen(name) &&
        std::memcmp(member.name.GetString(), name, std::strlen(name)) == 0) {
      ++count;
    }
  }
  return count;
}

void ReadEverything(const SipJson& message, int index) {
  volatile unsigned int sink = 0;
  sink = sink + message.ModuleIndex() + message.ModuleLayer() + message.ObjectId() +
         message.OpCode() + message.OpCodeExt() + message.CabinetNr() + message.Status() +
         message.UIntValue();
  Check(message.ModuleIndex() <= 0xFFFFu && message.ModuleLayer() <= 0xFFFFu,
        "module index or layer wider than 16 bits");
  for (const char* key : {"OC", "OE", "OI", "MI", "CA", "ST", "TO", "DA", "RAW", ""}) {
    sink = sink + message.GetCmdValue(index, key, 77u);
    sink = sink + (message.FindCmdMember(index, key) != nullptr ? 1u : 0u);
    sink = sink + (message.HasMember(key) ? 1u : 0u);
  }
  const unsigned char type = message.GetCmdDataType(index);
  Check(type <= 6, "data type code above 6");
  std::vector<unsigned char> stream{0xAB};
  const bool streamed = message.GetCmdDataStream(index, stream);
  if (!streamed) Check(stream.size() == 1 && stream[0] == 0xAB, "stream changed on false");
  std::string text = "untouched";
  const bool read = message.GetDataString(text);
  if (!read && type != JSON_TYPE_OBJECT) Check(text == "untouched", "string changed on false");
  (void)message.ToJson();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  halvane::TraceToMemory();
  halvane::SetTraceSwitch(true);
  halvane::SetTraceLevel(5);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const int index = static_cast<std::int8_t>(data[0]);
  const std::uint8_t selector = data[1];
  const char* text = reinterpret_cast<const char*>(data + 2);
  const std::size_t length = size - 2;

  SipJson message;
  std::string error;
  message.FromJson(text, length, 32, &error);  // a refused text leaves the empty layout
  message.m_CmdIndex = index;
  message.m_Nested = selector & 1u;
  if (selector & 2u) {
    // The string the switch may hang on a message; the copy duplicates it.
    const std::size_t n = length < 40 ? length : 40;
    message.m_pszExtra = static_cast<char*>(std::calloc(n + 1, 1));
    std::memcpy(message.m_pszExtra, text, n);
  }

  ReadEverything(message, index);
  ReadEverything(message, 0);

  // The message trace with tracing on: one line, starting with the label.
  CExtensionModule::TraceSip(2, "FUZZ (REQUEST)", message);
  const std::string trace = halvane::TakeTrace();
  Check(trace.rfind("\nFUZZ (REQUEST)      : OC 0x", 0) == 0, "trace line malformed");

  // The deep copy, against the rules written out above.
  {
    SipJson copy(message);
    Check(copy.m_CmdIndex == message.m_CmdIndex, "copy lost the index");
    if (message.m_pszExtra != nullptr) {
      Check(copy.m_pszExtra != nullptr && copy.m_pszExtra != message.m_pszExtra &&
                std::strcmp(copy.m_pszExtra, message.m_pszExtra) == 0,
            "copy did not duplicate the extra string");
    }
    SipJson expected;
    if (message.Document().IsObject()) {
      ExpectedMembers(expected.Document(), message.Document(), expected.Allocator());
    }
    Check(Same(copy.Document(), expected.Document()), "deep copy differs from the copy rules");
    Check(SharesNothing(copy.Document(), message.Document()), "deep copy shares storage");
    // The copy outlives its source unchanged.
    const std::string before = copy.ToJson();
    {
      SipJson source(message);
      SipJson again(source);
      char* extra = source.m_pszExtra;  // ClassInit forgets the string, its owner frees it
      source.ClassInit();
      std::free(extra);
      Check(again.ToJson() == before, "copy of a copy differs");
    }
    Check(copy.ToJson() == before, "copy changed");
    ReadEverything(copy, index);
  }

  // Writers: the status, then a member with and without omit-when-zero.
  const unsigned int value = selector & 4u ? 0u : (selector & 8u ? 0x80000000u : selector);
  message.SetStatus(value);
  const JsonValue* command = message.FindCmdMember(index, "ST");
  if (command != nullptr) Check(message.Status() == value, "status not written");
  JsonValue& cmd = message.GetCmd();
  const bool isObject = cmd.IsObject();
  const int omit = selector & 16u ? 1 : 0;
  const std::size_t before = CountMembers(cmd, "OE");
  const int written = message.SetCmdValue(cmd, "OE", value, omit);
  Check(written == (isObject ? 1 : 0), "SetCmdValue result");
  if (isObject && index >= 0) {
    if (value == 0 && omit) {
      // One member goes (the first of that name; a text may repeat names).
      Check(CountMembers(message.GetCmd(), "OE") == (before == 0 ? 0 : before - 1),
            "omitted member still there");
    } else {
      Check(message.OpCodeExt() == value, "member not written");
    }
  }
  ReadEverything(message, index);
  CExtensionModule::TraceSip(5, "FUZZ (RETURN) with a label longer than twenty", message);
  halvane::TakeTrace();

  // The copy operations on parts of the message, onto a value of their own.
  {
    CDataStruct target;
    const JsonValue& root = message.Document();
    if (root.IsObject()) {
      for (const auto& member : root.GetObject()) {
        JsonValue dst(rapidjson::kStringType);
        CRapidJsonUtil::CopyValue(dst, member.value, target.Allocator());
        CRapidJsonUtil::CopyArray(dst, member.value, target.Allocator());
        CRapidJsonUtil::CopyObject(target.Document(), member.value, target.Allocator());
      }
    }
    (void)target.ToJson();
    target.m_Nested = selector & 32u ? 1u : 0u;
    target.SetNumber("FileType", 2, 1);
    target.SetString("LocalFilePath", length != 0 && text[0] == 0 ? "x" : "y");
    target.HasMember("FileType");
  }
  return 0;  // the message frees its extra string
}
