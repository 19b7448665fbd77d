// CDataStruct: typed member setters over one JSON document, and the document's
// JSON text in both directions.
#include "message/DataStruct.h"

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstring>
#include <string>

namespace {

// The object the setters and HasMember work on in nested mode: the value of
// the root's first member. Null when the root is not an object or is empty.
const JsonValue* FirstMemberValue(const JsonValue& root) {
  if (!root.IsObject() || root.MemberCount() == 0) {
    return nullptr;
  }
  return &root.MemberBegin()->value;
}

JsonValue* FirstMemberValue(JsonValue& root) {
  return const_cast<JsonValue*>(FirstMemberValue(static_cast<const JsonValue&>(root)));
}

// Forwards the reader's events to a document and stops the parse as soon as
// objects/arrays nest deeper than the limit, so that an over-deep text never
// becomes a value tree (the tree's destructor, the deep copy and the writer
// all recurse once per level).
class CDepthLimitedHandler {
 public:
  CDepthLimitedHandler(JsonDocument& target, unsigned int maxDepth)
      : m_Target(target), m_MaxDepth(maxDepth) {}

  bool Null() { return m_Target.Null(); }
  bool Bool(bool b) { return m_Target.Bool(b); }
  bool Int(int i) { return m_Target.Int(i); }
  bool Uint(unsigned u) { return m_Target.Uint(u); }
  bool Int64(int64_t i) { return m_Target.Int64(i); }
  bool Uint64(uint64_t u) { return m_Target.Uint64(u); }
  bool Double(double d) { return m_Target.Double(d); }
  bool RawNumber(const char* str, rapidjson::SizeType length, bool copy) {
    return m_Target.RawNumber(str, length, copy);
  }
  bool String(const char* str, rapidjson::SizeType length, bool copy) {
    return m_Target.String(str, length, copy);
  }
  bool Key(const char* str, rapidjson::SizeType length, bool copy) {
    return m_Target.Key(str, length, copy);
  }
  bool StartObject() { return Enter() && m_Target.StartObject(); }
  bool EndObject(rapidjson::SizeType memberCount) {
    --m_Depth;
    return m_Target.EndObject(memberCount);
  }
  bool StartArray() { return Enter() && m_Target.StartArray(); }
  bool EndArray(rapidjson::SizeType elementCount) {
    --m_Depth;
    return m_Target.EndArray(elementCount);
  }

  bool TooDeep() const { return m_TooDeep; }

 private:
  bool Enter() {
    if (m_Depth >= m_MaxDepth) {
      m_TooDeep = true;
      return false;
    }
    ++m_Depth;
    return true;
  }

  JsonDocument& m_Target;
  unsigned int m_MaxDepth;
  unsigned int m_Depth = 0;
  bool m_TooDeep = false;
};

}  // namespace

CDataStruct::CDataStruct() : m_Document(rapidjson::kObjectType), m_Nested(0) {}

bool CDataStruct::HasMember(const char* name) const {
  if (name == nullptr || *name == '\0') {
    return false;
  }
  const JsonValue* target = &m_Document;
  if (m_Nested != 0) {
    // Nested mode falls back to the root when the first member's value is
    // neither an object nor an array; an array found here answers false.
    const JsonValue* first = FirstMemberValue(m_Document);
    if (first != nullptr && (first->IsObject() || first->IsArray())) {
      target = first;
    }
  }
  if (!target->IsObject()) {
    return false;
  }
  return target->HasMember(name);
}

namespace {

// Where the setters write: the root, or in nested mode the first member's
// object. Unlike HasMember, the setters have no fallback: nested mode writes
// into the first member's object or nowhere (null).
JsonValue* SetterTarget(JsonValue& root, unsigned int nested) {
  if (nested == 0) return &root;
  JsonValue* target = FirstMemberValue(root);
  return target != nullptr && target->IsObject() ? target : nullptr;
}

// Gives target's member name the value, or adds the member; 0 when the
// member holds another kind of value (isKind false), which stays as it is.
int ReplaceOrAdd(JsonValue& target, const char* name, JsonValue& value,
                 bool (JsonValue::*isKind)() const, JsonAllocator& allocator) {
  JsonValue::MemberIterator member = target.FindMember(name);
  if (member != target.MemberEnd()) {
    if (!(member->value.*isKind)()) {
      return 0;
    }
    member->value.Swap(value);
    return 1;
  }
  JsonValue copiedName(name, allocator);
  target.AddMember(copiedName, value, allocator);
  return 1;
}

}  // namespace

int CDataStruct::SetNumber(const char* name, unsigned int value, int isSigned) {
  if (name == nullptr || *name == '\0' || !m_Document.IsObject()) {
    return 0;
  }
  JsonValue* target = SetterTarget(m_Document, m_Nested);
  if (target == nullptr) {
    return 0;
  }
  JsonValue number;
  if (isSigned != 0) {
    number.SetInt(static_cast<int>(value));
  } else {
    number.SetUint(value);
  }
  return ReplaceOrAdd(*target, name, number, &JsonValue::IsNumber, Allocator());
}

int CDataStruct::SetString(const char* name, const char* value) {
  // A non-object root is refused here as well: the library would assert.
  if (name == nullptr || value == nullptr || *name == '\0' || !m_Document.IsObject()) {
    return 0;
  }
  JsonValue* target = SetterTarget(m_Document, m_Nested);
  if (target == nullptr) {
    return 0;
  }
  // Copied before the old text is released, in case value points into it.
  JsonValue text(value, Allocator());
  return ReplaceOrAdd(*target, name, text, &JsonValue::IsString, Allocator());
}

std::string CDataStruct::ToJson() const {
  rapidjson::GenericStringBuffer<JsonEncoding, JsonAllocator> buffer;
  rapidjson::Writer<rapidjson::GenericStringBuffer<JsonEncoding, JsonAllocator>, JsonEncoding,
                    JsonEncoding, JsonAllocator>
      writer(buffer);
  m_Document.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

bool CDataStruct::FromJson(const char* text, std::size_t length, unsigned int maxDepth,
                           std::string* error) {
  auto fail = [error](const std::string& why) {
    if (error != nullptr) {
      *error = why;
    }
    return false;
  };
  if (text == nullptr) {
    return fail("no JSON text");
  }
  // The reader takes a 0 byte for the end of the text; one inside the
  // given length would silently cut the document short.
  if (const void* nul = std::memchr(text, '\0', length)) {
    return fail("JSON text contains a 0 byte at offset " +
                std::to_string(static_cast<const char*>(nul) - text));
  }

  JsonDocument parsed;
  CDepthLimitedHandler handler(parsed, maxDepth);
  rapidjson::ParseResult result;
  // The iterative parser keeps its state on the heap, so the nesting of the
  // text cannot exhaust the stack while it is read.
  auto generate = [&](JsonDocument&) {
    rapidjson::MemoryStream stream(text, length);
    rapidjson::GenericReader<JsonEncoding, JsonEncoding, JsonAllocator> reader;
    result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
    return !result.IsError();
  };
  parsed.Populate(generate);

  if (handler.TooDeep()) {
    return fail("JSON nested deeper than " + std::to_string(maxDepth) + " levels at offset " +
                std::to_string(result.Offset()));
  }
  if (result.IsError()) {
    return fail("JSON parse error at offset " + std::to_string(result.Offset()) + ": " +
                rapidjson::GetParseError_En(result.Code()));
  }
  // Only the values are exchanged; the document keeps its own allocator (the
  // heap allocator has no state, so either may free the other's blocks).
  static_cast<JsonValue&>(m_Document).Swap(parsed);
  if (error != nullptr) {
    error->clear();
  }
  return true;
}
