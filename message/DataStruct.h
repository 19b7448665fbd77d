// CDataStruct: a JSON document with typed member setters that refuse to turn
// a member into another type, plus its compact JSON text form. SipJson
// derives from it; a data document of named arguments is one on its own.
#pragma once

#include <cstddef>
#include <string>

#include "message/JsonTypes.h"

class CDataStruct {
 public:
  // Root: an empty object; m_Nested 0.
  CDataStruct();
  ~CDataStruct() = default;
  CDataStruct(const CDataStruct&) = delete;
  CDataStruct& operator=(const CDataStruct&) = delete;

  // Whether the target object (the root, or with m_Nested the value of the
  // root's first member) has a member of this name.
  bool HasMember(const char* name) const;
  // Set or add a number member; isSigned non-zero stores a signed value.
  int SetNumber(const char* name, unsigned int value, int isSigned);
  // Set or add a string member (value copied up to its first 0 byte).
  int SetString(const char* name, const char* value);

  JsonDocument& Document() { return m_Document; }
  const JsonDocument& Document() const { return m_Document; }
  JsonAllocator& Allocator() { return m_Document.GetAllocator(); }

  // Compact JSON text of the root, members in document order.
  std::string ToJson() const;
  // Replaces the root by the parsed text. Refuses malformed text and text
  // nested deeper than maxDepth objects/arrays (the root object is depth 1;
  // the deep copy and the writer recurse) and says why in *error; on failure
  // the document is left as it was.
  bool FromJson(const char* text, std::size_t length, unsigned int maxDepth = 32,
                std::string* error = nullptr);

  // Fields, in this order.
  JsonDocument m_Document;
  unsigned int m_Nested;  // 0: root; non-zero: inside the root's first member
};
