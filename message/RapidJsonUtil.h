// Deep copies of JSON values into another document's allocator. The copy
// shares no storage with its source and outlives it: a queued message must
// survive the switch freeing the original as soon as ModuleRequest returns.
//
// CRapidJsonUtil is a class of static templates; their definitions follow the
// class in this header.
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

  // The value a copied member or element starts as, by the type code of what
  // is copied into it: null for a number (a fraction is not copied and must
  // read as null, not as the 0 the library builds from the number code), ""
  // for a string, {} and [] for object and array, false/true for booleans.
  template <typename Encoding, typename Allocator>
  static rapidjson::GenericValue<Encoding, Allocator> EmptyValue(rapidjson::Type type);

  // Appends value (moved; it is null afterwards) to array, which must be an
  // array. Storage grows to 16 elements on the first append and doubles
  // whenever it is full, which is how the host's messages grow; the library
  // on its own would grow by half. Every array append of the message model
  // goes through here. (Object members cannot be reserved in this version of
  // the library, so member lists keep the library's own growth.)
  template <typename Encoding, typename Allocator>
  static void AppendElement(rapidjson::GenericValue<Encoding, Allocator>& array,
                            rapidjson::GenericValue<Encoding, Allocator>& value, Allocator& a);

 private:
  // Copies the members of src (exactly an object) into dst (an object).
  template <typename Encoding, typename Allocator>
  static void CopyMembers(rapidjson::GenericValue<Encoding, Allocator>& dst,
                          const rapidjson::GenericValue<Encoding, Allocator>& src, Allocator& a,
                          bool keepUncopied);
};

template <typename Encoding, typename Allocator>
rapidjson::GenericValue<Encoding, Allocator> CRapidJsonUtil::EmptyValue(rapidjson::Type type) {
  using Value = rapidjson::GenericValue<Encoding, Allocator>;
  if (type == rapidjson::kNumberType || type > rapidjson::kNumberType) {
    return Value();
  }
  return Value(type);
}

template <typename Encoding, typename Allocator>
void CRapidJsonUtil::AppendElement(rapidjson::GenericValue<Encoding, Allocator>& array,
                                   rapidjson::GenericValue<Encoding, Allocator>& value,
                                   Allocator& a) {
  if (array.Size() == array.Capacity()) {
    const rapidjson::SizeType capacity = array.Capacity();
    array.Reserve(capacity == 0 ? 16u : capacity * 2u, a);
  }
  array.PushBack(value, a);
}

template <typename Encoding, typename Allocator>
int CRapidJsonUtil::CopyValue(rapidjson::GenericValue<Encoding, Allocator>& dst,
                              const rapidjson::GenericValue<Encoding, Allocator>& src,
                              Allocator& a) {
  using Value = rapidjson::GenericValue<Encoding, Allocator>;
  switch (src.GetType()) {
    case rapidjson::kNullType:
      // Nothing to copy; dst keeps its starting value.
      return 1;
    case rapidjson::kFalseType:
    case rapidjson::kTrueType:
      dst.SetBool(src.IsTrue());
      return 1;
    case rapidjson::kObjectType:
      if (src.IsObject()) {
        // Built aside and swapped in, so that a src living inside dst is
        // still intact while it is read.
        Value copy(rapidjson::kObjectType);
        CopyMembers(copy, src, a, false);
        dst.Swap(copy);
      }
      return 1;
    case rapidjson::kArrayType:
      CopyArray(dst, src, a);
      return 1;
    case rapidjson::kStringType: {
      // The library copies length bytes (inner 0 bytes included) and adds a
      // 0 byte; short texts live inside the value itself, longer ones in a
      // block of a, never in src's storage.
      Value copy(src.GetString(), src.GetStringLength(), a);
      dst.Swap(copy);
      return 1;
    }
    case rapidjson::kNumberType:
      // The 64-bit setters recompute every integer mark from the value.
      // Numbers with a fraction are not copied: messages carry integers.
      if (src.IsUint64()) {
        dst.SetUint64(src.GetUint64());
      } else if (src.IsInt64()) {
        dst.SetInt64(src.GetInt64());
      }
      return 1;
    default:
      return 0;
  }
}

template <typename Encoding, typename Allocator>
void CRapidJsonUtil::CopyArray(rapidjson::GenericValue<Encoding, Allocator>& dst,
                               const rapidjson::GenericValue<Encoding, Allocator>& src,
                               Allocator& a) {
  using Value = rapidjson::GenericValue<Encoding, Allocator>;
  if (!src.IsArray()) {
    return;
  }
  Value copy(rapidjson::kArrayType);
  if (!src.Empty()) {
    // Every element starts as the empty value of the FIRST element's type,
    // so a null in a mixed array becomes that type's empty value.
    const rapidjson::Type type = src[0].GetType();
    for (typename Value::ConstValueIterator it = src.Begin(); it != src.End(); ++it) {
      Value element = EmptyValue<Encoding, Allocator>(type);
      CopyValue(element, *it, a);
      AppendElement(copy, element, a);
    }
  }
  dst.Swap(copy);
}

template <typename Encoding, typename Allocator>
void CRapidJsonUtil::CopyObject(rapidjson::GenericValue<Encoding, Allocator>& dst,
                                const rapidjson::GenericValue<Encoding, Allocator>& src,
                                Allocator& a) {
  using Value = rapidjson::GenericValue<Encoding, Allocator>;
  if (!src.IsObject()) {
    return;
  }
  Value copy(rapidjson::kObjectType);
  CopyMembers(copy, src, a, true);
  dst.Swap(copy);
}

template <typename Encoding, typename Allocator>
void CRapidJsonUtil::CopyMembers(rapidjson::GenericValue<Encoding, Allocator>& dst,
                                 const rapidjson::GenericValue<Encoding, Allocator>& src,
                                 Allocator& a, bool keepUncopied) {
  using Value = rapidjson::GenericValue<Encoding, Allocator>;
  for (typename Value::ConstMemberIterator it = src.MemberBegin(); it != src.MemberEnd(); ++it) {
    Value name(it->name.GetString(), it->name.GetStringLength(), a);
    Value value = EmptyValue<Encoding, Allocator>(it->value.GetType());
    const int copied = CopyValue(value, it->value, a);
    if (copied != 0 || keepUncopied) {
      dst.AddMember(name, value, a);
    }
  }
}
