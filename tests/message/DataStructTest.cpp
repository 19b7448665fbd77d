// Tests of CDataStruct (typed setters, nested mode, JSON text in and out),
// the deep copy of CRapidJsonUtil with its array growth, and CStringMapper.
#include "message/DataStruct.h"

#include "message/RapidJsonUtil.h"
#include "message/StringMapper.h"
#include "tests/message/MessageTestUtil.h"

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

using korvex_test::Load;

namespace {

std::string ToJson(const JsonValue& value) {
  rapidjson::GenericStringBuffer<JsonEncoding, JsonAllocator> buffer;
  rapidjson::Writer<rapidjson::GenericStringBuffer<JsonEncoding, JsonAllocator>, JsonEncoding,
                    JsonEncoding, JsonAllocator>
      writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

// A copy made into a separate document, so that the source can be destroyed
// before the copy is read.
struct CopyTarget {
  CDataStruct data;
  JsonValue& root() { return data.m_Document; }
};

}  // namespace

// ---- CDataStruct setters ----

TEST(DataStruct, NewStructIsAnEmptyObject) {
  CDataStruct data;
  EXPECT_EQ("{}", data.ToJson());
  EXPECT_EQ(0u, data.m_Nested);
}

TEST(DataStruct, SetNumberAddsThenReplacesInPlace) {
  CDataStruct data;
  EXPECT_EQ(1, data.SetNumber("FileType", 2, 1));
  EXPECT_EQ(R"({"FileType":2})", data.ToJson());
  EXPECT_EQ(1, data.SetString("LocalFilePath", "/opt/korvex/Korvex_Data.zip"));
  EXPECT_EQ(1, data.SetNumber("FileType", 3, 0));
  EXPECT_EQ(R"({"FileType":3,"LocalFilePath":"/opt/korvex/Korvex_Data.zip"})", data.ToJson());
  EXPECT_TRUE(data.HasMember("FileType"));
  EXPECT_FALSE(data.HasMember("filetype"));
}

TEST(DataStruct, SetStringOnANumberIsRefused) {
  CDataStruct data;
  ASSERT_EQ(1, data.SetNumber("FileType", 2, 1));
  EXPECT_EQ(0, data.SetString("FileType", "x"));
  EXPECT_EQ(R"({"FileType":2})", data.ToJson());
}

TEST(DataStruct, SetNumberOnAStringIsRefused) {
  CDataStruct data;
  ASSERT_EQ(1, data.SetString("BmcFilePath", "x"));
  EXPECT_EQ(0, data.SetNumber("BmcFilePath", 1, 0));
  EXPECT_EQ(R"({"BmcFilePath":"x"})", data.ToJson());
}

TEST(DataStruct, SetStringReplacesInPlace) {
  CDataStruct data;
  ASSERT_EQ(1, data.SetString("A", "one"));
  ASSERT_EQ(1, data.SetNumber("B", 1, 0));
  EXPECT_EQ(1, data.SetString("A", "two"));
  EXPECT_EQ(R"({"A":"two","B":1})", data.ToJson());
  // The new text may even be the old one.
  EXPECT_EQ(1, data.SetString("A", data.m_Document["A"].GetString()));
  EXPECT_EQ(R"({"A":"two","B":1})", data.ToJson());
}

TEST(DataStruct, EmptyOrNullNamesAndNullValuesAreRefused) {
  CDataStruct data;
  EXPECT_EQ(0, data.SetNumber("", 1, 0));
  EXPECT_EQ(0, data.SetNumber(nullptr, 1, 0));
  EXPECT_EQ(0, data.SetString("A", nullptr));
  EXPECT_EQ(0, data.SetString(nullptr, "x"));
  EXPECT_EQ(0, data.SetString("", "x"));
  EXPECT_FALSE(data.HasMember(nullptr));
  EXPECT_FALSE(data.HasMember(""));
  EXPECT_EQ("{}", data.ToJson());
}

TEST(DataStruct, NonObjectRootIsRefused) {
  CDataStruct data;
  Load(data, "[1]");
  EXPECT_EQ(0, data.SetNumber("A", 1, 0));
  EXPECT_EQ(0, data.SetString("A", "x"));
  EXPECT_FALSE(data.HasMember("A"));
  data.m_Nested = 1;
  EXPECT_EQ(0, data.SetNumber("A", 1, 0));
  EXPECT_FALSE(data.HasMember("A"));
  EXPECT_EQ("[1]", data.ToJson());
}

TEST(DataStruct, NumberMarks) {
  CDataStruct data;
  ASSERT_EQ(1, data.SetNumber("s", 2, 1));
  ASSERT_EQ(1, data.SetNumber("neg", 0xFFFFFFFFu, 1));
  ASSERT_EQ(1, data.SetNumber("u", 0x7FFFFFFFu, 0));
  ASSERT_EQ(1, data.SetNumber("big", 0x80000000u, 0));
  EXPECT_EQ(R"({"s":2,"neg":-1,"u":2147483647,"big":2147483648})", data.ToJson());

  const JsonValue& s = data.m_Document["s"];
  EXPECT_TRUE(s.IsInt() && s.IsInt64() && s.IsUint() && s.IsUint64());
  const JsonValue& neg = data.m_Document["neg"];
  EXPECT_TRUE(neg.IsInt());
  EXPECT_TRUE(neg.IsInt64());
  EXPECT_FALSE(neg.IsUint());
  EXPECT_FALSE(neg.IsUint64());
  const JsonValue& u = data.m_Document["u"];
  EXPECT_TRUE(u.IsInt() && u.IsInt64() && u.IsUint() && u.IsUint64());
  const JsonValue& big = data.m_Document["big"];
  EXPECT_TRUE(big.IsUint());
  EXPECT_TRUE(big.IsUint64());
  EXPECT_FALSE(big.IsInt());
}

TEST(DataStruct, NamesAndStringsAreCopiesInTheDocument) {
  CDataStruct data;
  char name[] = "BmcFilePath";
  char value[] = "a file name longer than the inline storage of a value";
  ASSERT_EQ(1, data.SetString(name, value));
  const auto& member = *data.m_Document.MemberBegin();
  EXPECT_NE(static_cast<const char*>(name), member.name.GetString());
  EXPECT_NE(static_cast<const char*>(value), member.value.GetString());
  std::memset(name, 'x', sizeof(name) - 1);
  std::memset(value, 'y', sizeof(value) - 1);
  EXPECT_EQ(R"({"BmcFilePath":"a file name longer than the inline storage of a value"})",
            data.ToJson());

  char numberName[] = "FileType";
  ASSERT_EQ(1, data.SetNumber(numberName, 2, 1));
  EXPECT_NE(static_cast<const char*>(numberName), (data.m_Document.MemberEnd() - 1)->name.GetString());
}

TEST(DataStruct, NestedObjectIsTheTarget) {
  CDataStruct data;
  Load(data, R"({"A":{"b":1},"c":0})");
  data.m_Nested = 1;
  EXPECT_TRUE(data.HasMember("b"));
  EXPECT_FALSE(data.HasMember("A"));
  EXPECT_FALSE(data.HasMember("c"));
  EXPECT_EQ(1, data.SetNumber("c", 5, 0));
  EXPECT_EQ(1, data.SetString("d", "x"));
  EXPECT_EQ(R"({"A":{"b":1,"c":5,"d":"x"},"c":0})", data.ToJson());
}

TEST(DataStruct, NestedArrayAnswersFalseAndRefusesSetters) {
  CDataStruct data;
  Load(data, R"({"A":[1]})");
  data.m_Nested = 1;
  EXPECT_FALSE(data.HasMember("b"));
  EXPECT_FALSE(data.HasMember("A"));
  EXPECT_EQ(0, data.SetNumber("b", 1, 0));
  EXPECT_EQ(0, data.SetString("b", "x"));
  EXPECT_EQ(R"({"A":[1]})", data.ToJson());
}

TEST(DataStruct, NestedScalarFallsBackToTheRootOnlyForHasMember) {
  CDataStruct data;
  Load(data, R"({"A":1})");
  data.m_Nested = 1;
  EXPECT_TRUE(data.HasMember("A"));
  EXPECT_EQ(0, data.SetNumber("A", 2, 0));
  EXPECT_EQ(0, data.SetString("B", "x"));
  EXPECT_EQ(R"({"A":1})", data.ToJson());
}

TEST(DataStruct, NestedOnAnEmptyRoot) {
  CDataStruct data;
  data.m_Nested = 1;
  EXPECT_FALSE(data.HasMember("A"));
  EXPECT_EQ(0, data.SetNumber("A", 1, 0));
  EXPECT_EQ(0, data.SetString("A", "x"));
  EXPECT_EQ("{}", data.ToJson());
}

// ---- JSON text ----

TEST(DataStructJson, ToJsonIsCompactInDocumentOrder) {
  CDataStruct data;
  Load(data, " { \"z\" : 1 , \"a\" : [ true , null , \"s\\\"q\" ] , \"m\" : { } } ");
  EXPECT_EQ(R"({"z":1,"a":[true,null,"s\"q"],"m":{}})", data.ToJson());
}

TEST(DataStructJson, ToJsonEscapesInnerZeroBytes) {
  CDataStruct data;
  Load(data, R"({"s":"a\u0000b"})");
  EXPECT_EQ(3u, data.m_Document["s"].GetStringLength());
  EXPECT_EQ(R"({"s":"a\u0000b"})", data.ToJson());
}

TEST(DataStructJson, MalformedTextIsRefusedWithOffsetAndReason) {
  CDataStruct data;
  Load(data, R"({"keep":1})");
  std::string error;
  const std::string bad = R"({"a":})";
  EXPECT_FALSE(data.FromJson(bad.data(), bad.size(), 32, &error));
  EXPECT_EQ("JSON parse error at offset 5: Invalid value.", error);
  EXPECT_EQ(R"({"keep":1})", data.ToJson());

  const std::string trailing = R"({} x)";
  EXPECT_FALSE(data.FromJson(trailing.data(), trailing.size(), 32, &error));
  EXPECT_EQ("JSON parse error at offset 3: The document root must not be followed by other values.",
            error);

  EXPECT_FALSE(data.FromJson("", 0, 32, &error));
  EXPECT_EQ("JSON parse error at offset 0: The document is empty.", error);
  EXPECT_EQ(R"({"keep":1})", data.ToJson());
}

TEST(DataStructJson, LengthBoundsTheText) {
  CDataStruct data;
  const char text[] = R"({"a":1}garbage)";
  std::string error;
  EXPECT_TRUE(data.FromJson(text, 7, 32, &error)) << error;
  EXPECT_EQ(R"({"a":1})", data.ToJson());
  EXPECT_EQ("", error);
}

TEST(DataStructJson, ZeroByteOrNullTextIsRefused) {
  CDataStruct data;
  std::string error;
  const char text[] = "{}\0{\"a\":1}";
  EXPECT_FALSE(data.FromJson(text, sizeof(text) - 1, 32, &error));
  EXPECT_EQ("JSON text contains a 0 byte at offset 2", error);
  EXPECT_FALSE(data.FromJson(nullptr, 5, 32, &error));
  EXPECT_EQ("no JSON text", error);
  EXPECT_FALSE(data.FromJson(nullptr, 0));  // no error string wanted
  EXPECT_EQ("{}", data.ToJson());
}

TEST(DataStructJson, DepthLimitCountsObjectsAndArraysFromTheRoot) {
  CDataStruct data;
  std::string error;
  const std::string three = R"({"a":{"b":[1]}})";
  EXPECT_TRUE(data.FromJson(three.data(), three.size(), 3, &error)) << error;
  EXPECT_EQ(three, data.ToJson());

  const std::string four = R"({"a":{"b":[[1]]}})";
  EXPECT_FALSE(data.FromJson(four.data(), four.size(), 3, &error));
  EXPECT_EQ("JSON nested deeper than 3 levels at offset 11", error);
  EXPECT_EQ(three, data.ToJson());  // unchanged

  const std::string scalar = "7";
  EXPECT_TRUE(data.FromJson(scalar.data(), scalar.size(), 0, &error)) << error;
  EXPECT_EQ("7", data.ToJson());
  const std::string object = "{}";
  EXPECT_FALSE(data.FromJson(object.data(), object.size(), 0, &error));
  EXPECT_EQ("JSON nested deeper than 0 levels at offset 0", error);
}

TEST(DataStructJson, VeryDeepTextIsRefusedWithoutExhaustingTheStack) {
  CDataStruct data;
  std::string error;
  const std::string deep = std::string(1000000, '[') + std::string(1000000, ']');
  EXPECT_FALSE(data.FromJson(deep.data(), deep.size(), 32, &error));
  EXPECT_EQ("JSON nested deeper than 32 levels at offset 32", error);
  // Unbalanced and malformed at depth: the limit is hit first.
  const std::string open = "{\"a\":" + std::string(500000, '[');
  EXPECT_FALSE(data.FromJson(open.data(), open.size(), 100, &error));
  EXPECT_EQ("JSON nested deeper than 100 levels at offset 104", error);
  EXPECT_EQ("{}", data.ToJson());
}

TEST(DataStructJson, ParsedNumbersKeepTheirMarks) {
  CDataStruct data;
  Load(data, R"({"u":4294967295,"n":-5,"f":1.5})");
  const JsonValue& u = data.m_Document["u"];
  EXPECT_TRUE(u.IsUint() && u.IsUint64() && u.IsInt64());
  EXPECT_FALSE(u.IsInt());
  const JsonValue& n = data.m_Document["n"];
  EXPECT_TRUE(n.IsInt() && n.IsInt64());
  EXPECT_FALSE(n.IsUint() || n.IsUint64());
  EXPECT_TRUE(data.m_Document["f"].IsDouble());
}

// ---- Deep copy ----

TEST(RapidJsonCopy, CopyObjectSharesNothingAndKeepsInnerZeroBytes) {
  const std::string text =
      R"({"s":"a\u0000b","n":-5,"u":4294967295,"t":true,)"
      R"("long":"a text that does not fit into the value itself","o":{"arr":[1,2]}})";
  auto source = std::make_unique<CDataStruct>();
  Load(*source, text);
  CopyTarget target;
  CRapidJsonUtil::CopyObject(target.root(), source->m_Document, target.data.Allocator());

  const JsonValue& srcRoot = source->m_Document;
  JsonValue& dst = target.root();
  EXPECT_NE(srcRoot["s"].GetString(), dst["s"].GetString());
  EXPECT_NE(srcRoot["long"].GetString(), dst["long"].GetString());
  EXPECT_NE(srcRoot.MemberBegin()->name.GetString(), dst.MemberBegin()->name.GetString());
  EXPECT_NE(&srcRoot["o"]["arr"][0], &dst["o"]["arr"][0]);
  source.reset();

  EXPECT_EQ(text, target.data.ToJson());
  ASSERT_EQ(3u, dst["s"].GetStringLength());
  EXPECT_EQ(0, std::memcmp("a\0b", dst["s"].GetString(), 4));  // with a 0 byte after
  EXPECT_STREQ("a text that does not fit into the value itself", dst["long"].GetString());

  EXPECT_TRUE(dst["n"].IsInt() && dst["n"].IsInt64());
  EXPECT_FALSE(dst["n"].IsUint() || dst["n"].IsUint64());
  EXPECT_TRUE(dst["u"].IsUint() && dst["u"].IsUint64() && dst["u"].IsInt64());
  EXPECT_FALSE(dst["u"].IsInt());
  EXPECT_TRUE(dst["t"].IsTrue());
}

TEST(RapidJsonCopy, FractionCopiesToNull) {
  CDataStruct source;
  Load(source, R"({"d":1.5})");
  CopyTarget target;
  CRapidJsonUtil::CopyObject(target.root(), source.m_Document, target.data.Allocator());
  EXPECT_TRUE(target.root()["d"].IsNull());
  EXPECT_EQ(R"({"d":null})", target.data.ToJson());
}

TEST(RapidJsonCopy, CopyValueOfNullLeavesDestination) {
  JsonAllocator a;
  JsonValue dst(7u);
  const JsonValue src;
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, src, a));
  EXPECT_TRUE(dst.IsUint());
  EXPECT_EQ(7u, dst.GetUint());

  JsonValue text("keep", a);
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(text, src, a));
  EXPECT_STREQ("keep", text.GetString());
}

TEST(RapidJsonCopy, CopyValueOfFractionLeavesDestination) {
  JsonAllocator a;
  JsonValue dst(7u);
  const JsonValue src(2.5);
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, src, a));
  EXPECT_EQ(7u, dst.GetUint());
}

TEST(RapidJsonCopy, CopyValueReplacesByType) {
  JsonAllocator a;
  JsonValue dst("old", a);
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, JsonValue(true), a));
  EXPECT_TRUE(dst.IsTrue());
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, JsonValue(false), a));
  EXPECT_TRUE(dst.IsFalse());

  const JsonValue wide(static_cast<uint64_t>(0x100000000ull));
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, wide, a));
  EXPECT_TRUE(dst.IsUint64() && dst.IsInt64());
  EXPECT_FALSE(dst.IsUint() || dst.IsInt());
  EXPECT_EQ(0x100000000ull, dst.GetUint64());

  const JsonValue negative(static_cast<int64_t>(-0x80000000ll));
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, negative, a));
  EXPECT_TRUE(dst.IsInt() && dst.IsInt64());
  EXPECT_FALSE(dst.IsUint() || dst.IsUint64());
  EXPECT_EQ(INT32_MIN, dst.GetInt());

  // A 64-bit held value that fits in 32 bits gets its 32-bit marks again.
  const JsonValue small(static_cast<uint64_t>(5));
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, small, a));
  EXPECT_TRUE(dst.IsInt() && dst.IsUint() && dst.IsInt64() && dst.IsUint64());

  CDataStruct source;
  Load(source, R"({"x":[1,"a"]})");
  EXPECT_EQ(1, CRapidJsonUtil::CopyValue(dst, source.m_Document, a));
  EXPECT_EQ(R"({"x":[1,"a"]})", ToJson(dst));
}

TEST(RapidJsonCopy, CopyArrayOfMixedArraysStartsFromTheFirstElementsType) {
  const std::pair<const char*, const char*> cases[] = {
      {"[1,null]", "[1,null]"},
      {R"(["a",null])", R"(["a",""])"},
      {"[1.5,2]", "[null,2]"},
      {R"(["a",1.5])", R"(["a",""])"},
      {R"([{"k":1},null])", R"([{"k":1},{}])"},
      {"[[1],null]", "[[1],[]]"},
      {"[false,null]", "[false,false]"},
      {"[true,null]", "[true,true]"},
      {"[null,1,\"a\"]", "[null,1,\"a\"]"},
      {"[]", "[]"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    CDataStruct source;
    Load(source, c.first);
    JsonAllocator a;
    JsonValue dst(rapidjson::kObjectType);
    CRapidJsonUtil::CopyArray(dst, source.m_Document, a);
    EXPECT_EQ(c.second, ToJson(dst));
  }
}

TEST(RapidJsonCopy, CopyArrayNullElementIsTheEmptyValueOfTheFirstType) {
  CDataStruct source;
  Load(source, R"(["a",null])");
  JsonAllocator a;
  JsonValue dst;
  CRapidJsonUtil::CopyArray(dst, source.m_Document, a);
  ASSERT_TRUE(dst.IsArray());
  ASSERT_EQ(2u, dst.Size());
  EXPECT_TRUE(dst[1].IsString());
  EXPECT_EQ(0u, dst[1].GetStringLength());

  Load(source, "[1,null]");
  CRapidJsonUtil::CopyArray(dst, source.m_Document, a);
  ASSERT_EQ(2u, dst.Size());
  EXPECT_TRUE(dst[1].IsNull());
}

TEST(RapidJsonCopy, CopyObjectOfNonObjectLeavesDestinationUntouched) {
  for (const char* text : {"[1,2]", R"("s")", "5", "null", "true"}) {
    SCOPED_TRACE(text);
    CDataStruct source;
    Load(source, text);
    CDataStruct target;
    Load(target, R"({"keep":[1,{"x":"y"}]})");
    const JsonValue* keep = &target.m_Document["keep"];
    CRapidJsonUtil::CopyObject(target.m_Document, source.m_Document, target.Allocator());
    EXPECT_EQ(R"({"keep":[1,{"x":"y"}]})", target.ToJson());
    EXPECT_EQ(keep, &target.m_Document["keep"]);
  }
}

TEST(RapidJsonCopy, CopyArrayOfNonArrayLeavesDestinationUntouched) {
  CDataStruct source;
  Load(source, R"({"a":[1]})");
  JsonAllocator a;
  JsonValue dst("keep", a);
  CRapidJsonUtil::CopyArray(dst, source.m_Document, a);
  EXPECT_STREQ("keep", dst.GetString());
}

TEST(RapidJsonCopy, CopyObjectReplacesAllOfTheDestination) {
  CDataStruct source;
  Load(source, R"({"b":2})");
  CDataStruct target;
  Load(target, R"({"a":{"deep":["x","y"]},"b":1})");
  CRapidJsonUtil::CopyObject(target.m_Document, source.m_Document, target.Allocator());
  EXPECT_EQ(R"({"b":2})", target.ToJson());
}

TEST(RapidJsonCopy, SourceInsideTheDestinationIsCopiedIntact) {
  CDataStruct data;
  Load(data, R"({"a":{"b":[1,"x"],"c":"a text longer than the inline storage"}})");
  CRapidJsonUtil::CopyObject(data.m_Document, data.m_Document["a"], data.Allocator());
  EXPECT_EQ(R"({"b":[1,"x"],"c":"a text longer than the inline storage"})", data.ToJson());

  CRapidJsonUtil::CopyValue(data.m_Document, data.m_Document["c"], data.Allocator());
  EXPECT_EQ(R"("a text longer than the inline storage")", data.ToJson());

  Load(data, R"({"a":[[1,2],3]})");
  CRapidJsonUtil::CopyArray(data.m_Document, data.m_Document["a"], data.Allocator());
  EXPECT_EQ("[[1,2],3]", data.ToJson());

  Load(data, R"({"a":1})");
  CRapidJsonUtil::CopyObject(data.m_Document, data.m_Document, data.Allocator());
  EXPECT_EQ(R"({"a":1})", data.ToJson());
}

TEST(RapidJsonCopy, CopiedArraysGrowTo16ThenDouble) {
  CDataStruct source;
  Load(source, "[0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16]");
  JsonAllocator a;
  JsonValue dst;
  CRapidJsonUtil::CopyArray(dst, source.m_Document, a);
  EXPECT_EQ(17u, dst.Size());
  EXPECT_EQ(32u, dst.Capacity());
}

TEST(RapidJsonCopy, AppendElementGrowsTo16ThenDoubles) {
  JsonAllocator a;
  JsonValue array(rapidjson::kArrayType);
  const std::pair<unsigned, unsigned> steps[] = {{1, 16}, {16, 16}, {17, 32}, {32, 32}, {33, 64}};
  unsigned appended = 0;
  for (const auto& step : steps) {
    while (appended < step.first) {
      JsonValue value(appended);
      CRapidJsonUtil::AppendElement(array, value, a);
      EXPECT_TRUE(value.IsNull());  // handed over
      ++appended;
    }
    EXPECT_EQ(step.first, array.Size());
    EXPECT_EQ(step.second, array.Capacity()) << "after " << step.first << " appends";
  }
  EXPECT_EQ(32u, array[32].GetUint());
}

TEST(RapidJsonCopy, EmptyValues) {
  using Util = CRapidJsonUtil;
  EXPECT_EQ("null", ToJson(Util::EmptyValue<JsonEncoding, JsonAllocator>(rapidjson::kNullType)));
  EXPECT_EQ("false", ToJson(Util::EmptyValue<JsonEncoding, JsonAllocator>(rapidjson::kFalseType)));
  EXPECT_EQ("true", ToJson(Util::EmptyValue<JsonEncoding, JsonAllocator>(rapidjson::kTrueType)));
  EXPECT_EQ("{}", ToJson(Util::EmptyValue<JsonEncoding, JsonAllocator>(rapidjson::kObjectType)));
  EXPECT_EQ("[]", ToJson(Util::EmptyValue<JsonEncoding, JsonAllocator>(rapidjson::kArrayType)));
  EXPECT_EQ(R"("")",
            ToJson(Util::EmptyValue<JsonEncoding, JsonAllocator>(rapidjson::kStringType)));
  EXPECT_TRUE((Util::EmptyValue<JsonEncoding, JsonAllocator>(rapidjson::kNumberType).IsNull()));
}

// ---- CStringMapper ----

TEST(StringMapper, BytesUpToTheFirstZeroUnchanged) {
  EXPECT_EQ("abc", CStringMapper::StringToUTF8("abc"));
  EXPECT_EQ("\xC3\xA4\xE2\x82\xAC", CStringMapper::StringToUTF8("\xC3\xA4\xE2\x82\xAC"));
  EXPECT_EQ("\xFF\x80", CStringMapper::StringToUTF8("\xFF\x80"));  // no validation either
  EXPECT_EQ("a", CStringMapper::StringToUTF8("a\0b"));
  EXPECT_EQ("", CStringMapper::StringToUTF8(""));
  EXPECT_EQ("", CStringMapper::StringToUTF8(nullptr));
}
