// Tests of the command members: the generic unsigned reader and writer and
// the readers of the command data "DA" in each of its encodings.
#include "message/SipJson.h"

#include "tests/message/MessageTestUtil.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using korvex_test::Commands;
using korvex_test::Load;

namespace {

using Bytes = std::vector<unsigned char>;

// A message whose current (and only) command carries "DA" given as JSON text.
void LoadData(SipJson& message, const std::string& data) {
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":13314,"DA":)" + data + "}]}}");
}

Bytes Stream(const std::string& data) {
  SipJson message;
  LoadData(message, data);
  Bytes out{0xEE};
  EXPECT_TRUE(message.GetCmdDataStream(0, out)) << data;
  return out;
}

unsigned int UInt(const std::string& data) {
  SipJson message;
  LoadData(message, data);
  return message.UIntValue();
}

const Bytes kUntouched{0xAA, 0xBB};
const std::string kUntouchedText = "untouched";

// The stream of the first command is refused and the output left as it was.
void ExpectStreamRefused(const SipJson& message) {
  Bytes out = kUntouched;
  EXPECT_FALSE(message.GetCmdDataStream(0, out));
  EXPECT_EQ(kUntouched, out);
}

}  // namespace

TEST(CommandStream, NumbersInTheFewestBytesLittleEndian) {
  EXPECT_EQ((Bytes{0x34, 0x12}), Stream("4660"));  // 0x1234
  EXPECT_EQ((Bytes{0x00, 0x01}), Stream("256"));
  EXPECT_EQ((Bytes{0x00}), Stream("0"));
  EXPECT_EQ((Bytes{0xFF}), Stream("255"));
  EXPECT_EQ((Bytes{0xFF, 0xFF}), Stream("65535"));
  EXPECT_EQ((Bytes{0x00, 0x00, 0x01, 0x00}), Stream("65536"));
  EXPECT_EQ((Bytes{0xFF, 0xFF, 0xFF, 0xFF}), Stream("4294967295"));
  EXPECT_EQ((Bytes{0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00}), Stream("4294967296"));
  EXPECT_EQ((Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
            Stream("18446744073709551615"));
}

TEST(CommandStream, NegativeNumberIsRefusedButReadsAsUnsigned) {
  SipJson message;
  LoadData(message, "-1");
  ExpectStreamRefused(message);
  EXPECT_EQ(0xFFFFFFFFu, message.UIntValue());
}

TEST(CommandStream, FractionIsRefused) {
  SipJson message;
  LoadData(message, "2.5");
  ExpectStreamRefused(message);
}

TEST(CommandStream, StringGivesItsBytesAndATerminator) {
  EXPECT_EQ((Bytes{0x61, 0x62, 0x63, 0x00}), Stream(R"("abc")"));
  EXPECT_EQ((Bytes{0x00}), Stream(R"("")"));
  EXPECT_EQ((Bytes{0xC3, 0xA4, 0x00}), Stream("\"\xC3\xA4\""));  // UTF-8 kept as is
  EXPECT_EQ((Bytes{0x61, 0x00}), Stream(R"("a\u0000b")"));      // up to the first 0 byte
}

TEST(CommandStream, ArrayOfStringsGivesTerminatedTextsAndOneMoreZero) {
  EXPECT_EQ((Bytes{0x61, 0x00, 0x62, 0x63, 0x00, 0x00}), Stream(R"(["a","bc"])"));
  EXPECT_EQ((Bytes{0x00, 0x00}), Stream(R"([""])"));
}

TEST(CommandStream, EmptyArrayGivesTrueAndAnEmptyVector) {
  EXPECT_EQ(Bytes{}, Stream("[]"));
}

TEST(CommandStream, ArrayWhoseFirstElementIsNoStringGivesTrueAndEmpty) {
  EXPECT_EQ(Bytes{}, Stream("[1,2,3,4]"));
  EXPECT_EQ(Bytes{}, Stream(R"([1,"a"])"));
}

TEST(CommandStream, LaterNonStringElementsCountAsEmptyTexts) {
  EXPECT_EQ((Bytes{0x61, 0x00, 0x00, 0x62, 0x00, 0x00}), Stream(R"(["a",7,"b"])"));
}

TEST(CommandStream, RawGivesTheLowByteOfEveryElement) {
  EXPECT_EQ((Bytes{0x01, 0x02, 0x03}), Stream(R"({"RAW":[1,2,3]})"));
  EXPECT_EQ((Bytes{0xFF}), Stream(R"({"RAW":[511]})"));
  EXPECT_EQ((Bytes{0x01, 0x00, 0x03}), Stream(R"({"RAW":[1,"x",3]})"));
  EXPECT_EQ((Bytes{0x01, 0xFF}), Stream(R"({"RAW":[1,-1]})"));
}

TEST(CommandStream, ObjectWithoutUsableRawGivesTrueAndEmpty) {
  EXPECT_EQ(Bytes{}, Stream(R"({})"));
  EXPECT_EQ(Bytes{}, Stream(R"({"FileType":2})"));
  EXPECT_EQ(Bytes{}, Stream(R"({"RAW":[]})"));
  EXPECT_EQ(Bytes{}, Stream(R"({"RAW":[-1,2]})"));
  EXPECT_EQ(Bytes{}, Stream(R"({"RAW":["a"]})"));
  EXPECT_EQ(Bytes{}, Stream(R"({"RAW":7})"));
  EXPECT_EQ(Bytes{}, Stream(R"({"RAW":"abc"})"));
}

TEST(CommandStream, NullAndBooleansAreRefused) {
  for (const char* data : {"null", "true", "false"}) {
    SCOPED_TRACE(data);
    SipJson message;
    LoadData(message, data);
    ExpectStreamRefused(message);
  }
}

TEST(CommandStream, UsesTheGivenIndexNotTheCurrentCommand) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"DA":"a"},{"DA":258}]}})");
  Bytes out;
  EXPECT_TRUE(message.GetCmdDataStream(1, out));
  EXPECT_EQ((Bytes{0x02, 0x01}), out);
  EXPECT_TRUE(message.GetCmdDataStream(0, out));
  EXPECT_EQ((Bytes{0x61, 0x00}), out);
}

TEST(CommandData, RawBytesAsTextAndValue) {
  SipJson message;
  LoadData(message, R"({"RAW":[1,2,3]})");
  std::string text = kUntouchedText;
  EXPECT_TRUE(message.GetDataString(text));
  EXPECT_EQ(std::string("\x01\x02\x03", 3), text);
}

TEST(CommandData, RawTextEndsAtItsFirstZeroByte) {
  SipJson message;
  LoadData(message, R"({"RAW":[65,0,66]})");
  std::string text = kUntouchedText;
  EXPECT_TRUE(message.GetDataString(text));
  EXPECT_EQ("A", text);

  LoadData(message, R"({"RAW":[0,65]})");
  text = kUntouchedText;
  EXPECT_TRUE(message.GetDataString(text));
  EXPECT_EQ("", text);
}

TEST(CommandData, RawTextRefusedClearsTheString) {
  for (const char* data :
       {R"({})", R"({"RAW":[]})", R"({"RAW":5})", R"({"RAW":[-1]})", R"({"RAW":["A"]})"}) {
    SCOPED_TRACE(data);
    SipJson message;
    LoadData(message, data);
    std::string text = kUntouchedText;
    EXPECT_FALSE(message.GetDataString(text));
    EXPECT_EQ("", text);
  }
}

TEST(CommandData, StringAndNullAsText) {
  SipJson message;
  LoadData(message, R"("Korvex_Data.zip")");
  std::string text = kUntouchedText;
  EXPECT_TRUE(message.GetDataString(text));
  EXPECT_EQ("Korvex_Data.zip", text);

  LoadData(message, R"("a\u0000b")");
  EXPECT_TRUE(message.GetDataString(text));
  EXPECT_EQ("a", text);

  LoadData(message, "null");
  text = kUntouchedText;
  EXPECT_TRUE(message.GetDataString(text));
  EXPECT_EQ("", text);
}

TEST(CommandData, OtherTypesAsTextAreRefusedUntouched) {
  for (const char* data : {"true", "false", "7", R"(["a"])"}) {
    SCOPED_TRACE(data);
    SipJson message;
    LoadData(message, data);
    std::string text = kUntouchedText;
    EXPECT_FALSE(message.GetDataString(text));
    EXPECT_EQ(kUntouchedText, text);
  }
}

TEST(CommandData, TextReadsTheCurrentCommand) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"DA":"first"},{"DA":"second"}]}})");
  message.m_CmdIndex = 1;
  std::string text;
  EXPECT_TRUE(message.GetDataString(text));
  EXPECT_EQ("second", text);
}

TEST(CommandData, RawValueByElementCount) {
  EXPECT_EQ(0x1234u, UInt(R"({"RAW":[52,18]})"));
  EXPECT_EQ(0x1FFu, UInt(R"({"RAW":[511]})"));          // one element: whole
  EXPECT_EQ(0xFFFFu, UInt(R"({"RAW":[511,511]})"));     // two: bytes or-ed
  EXPECT_EQ(0u, UInt(R"({"RAW":[]})"));
  EXPECT_EQ(0x030201u, UInt(R"({"RAW":[1,2,3]})"));     // missing fourth is 0
  EXPECT_EQ(0x04030201u, UInt(R"({"RAW":[1,2,3,4,5]})"));
  // Three or more: whole values added, not masked or or-ed.
  EXPECT_EQ(0x2FFu, UInt(R"({"RAW":[511,1,0,0]})"));
  EXPECT_EQ(0x00FFFFFFu, UInt(R"({"RAW":[4294967295,0,0,1]})"));  // wraps at 32 bits
}

TEST(CommandData, RawValueWithoutRawArrayIsZero) {
  EXPECT_EQ(0u, UInt(R"({})"));
  EXPECT_EQ(0u, UInt(R"({"RAW":5})"));
  EXPECT_EQ(0u, UInt(R"({"RAW":{"a":1}})"));
}

TEST(CommandData, ValueByType) {
  EXPECT_EQ(1u, UInt("true"));
  EXPECT_EQ(0u, UInt("false"));
  EXPECT_EQ(0u, UInt("null"));
  EXPECT_EQ(42u, UInt("42"));
  EXPECT_EQ(0x80000000u, UInt("2147483648"));
  EXPECT_EQ(0xFFFFFFFFu, UInt("4294967295"));
  EXPECT_EQ(0x80000000u, UInt("-2147483648"));
  EXPECT_EQ(0u, UInt("4294967296"));
  EXPECT_EQ(0u, UInt("-2147483649"));
  EXPECT_EQ(0u, UInt("1.5"));
  EXPECT_EQ(0u, UInt(R"("17")"));
  EXPECT_EQ(0u, UInt("[1]"));
}

TEST(CommandData, CommandWithoutDataReadsAsNothing) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":13314}]}})");
  EXPECT_EQ(0u, message.GetCmdDataType(0));
  std::string text = kUntouchedText;
  EXPECT_FALSE(message.GetDataString(text));
  EXPECT_EQ(kUntouchedText, text);
  EXPECT_EQ(0u, message.UIntValue());
  ExpectStreamRefused(message);
}

TEST(CommandData, DataTypeCodes) {
  const std::pair<const char*, unsigned> cases[] = {
      {"null", 0}, {"false", 1}, {"true", 2}, {"{}", 3},
      {"[]", 4},   {R"("")", 5}, {"1", 6},    {"1.5", 6},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    SipJson message;
    LoadData(message, c.first);
    EXPECT_EQ(c.second, message.GetCmdDataType(0));
    EXPECT_EQ(0u, message.GetCmdDataType(1));
    EXPECT_EQ(0u, message.GetCmdDataType(-1));
  }
}

TEST(CommandData, MalformedEnvelopesGiveEveryReaderItsFallback) {
  const char* documents[] = {
      R"({})",
      R"({"SIP":[{"DA":1}]})",
      R"({"SIP":{"V":1,"CMD":{"DA":1}}})",
      R"({"SIP":{"V":1,"CMD":["DA"]}})",
      R"({"SIP":{"V":1,"CMD":[[{"DA":1}]]}})",
      R"([{"DA":1}])",
  };
  for (const char* text : documents) {
    SCOPED_TRACE(text);
    SipJson message;
    Load(message, text);
    EXPECT_EQ(0u, message.GetCmdDataType(0));
    EXPECT_EQ(0u, message.UIntValue());
    EXPECT_EQ(7u, message.GetCmdValue(0, "DA", 7));
    std::string textOut = kUntouchedText;
    EXPECT_FALSE(message.GetDataString(textOut));
    EXPECT_EQ(kUntouchedText, textOut);
    ExpectStreamRefused(message);
  }
}

TEST(CommandData, NegativeCurrentIndexGivesFallbacks) {
  SipJson message;
  LoadData(message, "5");
  message.m_CmdIndex = -1;
  EXPECT_EQ(0u, message.UIntValue());
  std::string text = kUntouchedText;
  EXPECT_FALSE(message.GetDataString(text));
  EXPECT_EQ(kUntouchedText, text);
}

TEST(CommandValue, ReadsMemberOrDefault) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"ST":0,"TO":30,"X":"s","N":-2},{"ST":6}]}})");
  EXPECT_EQ(0u, message.GetCmdValue(0, "ST", 22));
  EXPECT_EQ(6u, message.GetCmdValue(1, "ST", 22));
  EXPECT_EQ(30u, message.GetCmdValue(0, "TO", 0));
  EXPECT_EQ(0xFFFFFFFEu, message.GetCmdValue(0, "N", 0));
  EXPECT_EQ(22u, message.GetCmdValue(1, "TO", 22));
  EXPECT_EQ(22u, message.GetCmdValue(2, "ST", 22));
  EXPECT_EQ(22u, message.GetCmdValue(-1, "ST", 22));
  EXPECT_EQ(9u, message.GetCmdValue(0, "X", 9));
  EXPECT_EQ(9u, message.GetCmdValue(0, nullptr, 9));
}

TEST(CommandValue, OmittedZeroAddsNothing) {
  SipJson message;
  JsonValue& command = message.GetCmd();
  EXPECT_EQ(1, message.SetCmdValue(command, "OE", 0, 1));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{}]}})", message.ToJson());
}

TEST(CommandValue, ZeroWithoutOmitIsWritten) {
  SipJson message;
  JsonValue& command = message.GetCmd();
  EXPECT_EQ(1, message.SetCmdValue(command, "ST", 0, 0));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"ST":0}]}})", message.ToJson());
}

TEST(CommandValue, RemovingTheFirstOfThreeMovesTheLastIntoItsPlace) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OE":1,"OI":2,"TO":3}]}})");
  EXPECT_EQ(1, message.SetCmdValue(message.GetCmd(), "OE", 0, 1));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"TO":3,"OI":2}]}})", message.ToJson());
}

TEST(CommandValue, ReplacesInPlaceAndAppendsWithTheCallersName) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1,"ST":22,"DA":"x"}]}})");
  JsonValue& command = message.GetCmd();
  EXPECT_EQ(1, message.SetCmdValue(command, "ST", 0x80000000u, 1));
  static const char kTimeout[] = "TO";
  EXPECT_EQ(1, message.SetCmdValue(command, kTimeout, 29, 1));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1,"ST":2147483648,"DA":"x","TO":29}]}})",
            message.ToJson());
  const JsonValue& cmd = Commands(message)[0];
  EXPECT_EQ(static_cast<const char*>(kTimeout), (cmd.MemberBegin() + 3)->name.GetString());
  const JsonValue& st = cmd["ST"];
  EXPECT_TRUE(st.IsUint());
  EXPECT_FALSE(st.IsInt());
  const JsonValue& to = cmd["TO"];
  EXPECT_TRUE(to.IsUint() && to.IsInt() && to.IsUint64() && to.IsInt64());
}

TEST(CommandValue, ReplacesAMemberOfAnotherTypeByTheNumber) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"ST":"busy","DA":1}]}})");
  EXPECT_EQ(1, message.SetCmdValue(message.GetCmd(), "ST", 6, 0));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"ST":6,"DA":1}]}})", message.ToJson());
}

TEST(CommandValue, RefusesANonObjectCommand) {
  SipJson message;
  message.m_CmdIndex = 1;
  JsonValue& command = message.GetCmd();  // padding: {} then null
  ASSERT_TRUE(command.IsNull());
  EXPECT_EQ(0, message.SetCmdValue(command, "ST", 1, 0));
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{},null]}})", message.ToJson());

  JsonValue text("text");
  EXPECT_EQ(0, message.SetCmdValue(text, "ST", 1, 0));
  JsonValue array(rapidjson::kArrayType);
  EXPECT_EQ(0, message.SetCmdValue(array, "ST", 0, 1));
  EXPECT_EQ(0, message.SetCmdValue(message.GetCmd(), nullptr, 1, 0));
}

TEST(CommandValue, GetCmdReturnsTheExistingCommandWithoutPadding) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1},"x"]}})");
  message.m_CmdIndex = 1;
  JsonValue& command = message.GetCmd();
  EXPECT_EQ(&Commands(message)[1], &command);
  EXPECT_TRUE(command.IsString());  // handed out without a type test
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1},"x"]}})", message.ToJson());
}
