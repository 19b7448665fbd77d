// Deep copies of JSON values into another document's allocator. The copy
// shares no storage with its source and outlives it.
#pragma once

#include "message/JsonTypes.h"

class CRapidJsonUtil {
 public:
  // 1: copied or nothing to copy; 0: unknown type code.
  template <typename Encoding, typename Allocator>
  static int CopyValue(rapidjson::GenericValue<Encoding, Allocator>& dst,
                       const rapidjson::GenericValue<Encoding, Allocator>& src, Allocator& a);

  template <typename Encoding, typename Allocator>
  static void CopyArray(rapidjson::GenericValue<Encoding, Allocator>& dst,
                        const rapidjson::GenericValue<Encoding, Allocator>& src, Allocator& a);

  template <typename Encoding, typename Allocator>
  static void CopyObject(rapidjson::GenericValue<Encoding, Allocator>& dst,
                         const rapidjson::GenericValue<Encoding, Allocator>& src, Allocator& a);
};
