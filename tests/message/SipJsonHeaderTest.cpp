// Tests of the message envelope: reset layout, header readers and their
// fallbacks, the status writer with its padding of "CMD", number marks, the
// message copy rule and tolerance of malformed envelopes.
#include "message/RapidJsonUtil.h"
#include "message/SipJson.h"
#include "tests/message/MessageTestUtil.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

using korvex_test::Commands;
using korvex_test::Load;

namespace {

constexpr char kEmptyLayout[] = R"({"SIP":{"V":1,"CMD":[]}})";

void ExpectAllFallbacks(const SipJson& message) {
  EXPECT_EQ(0u, message.ModuleIndex());
  EXPECT_EQ(0u, message.ModuleLayer());
  EXPECT_EQ(0u, message.ObjectId());
  EXPECT_EQ(0u, message.OpCode());
  EXPECT_EQ(0u, message.OpCodeExt());
  EXPECT_EQ(0u, message.CabinetNr());
  EXPECT_EQ(22u, message.Status());
}

// A small non-negative integer carries every integer mark RapidJSON has,
// so that a reader asking for any integer type gets it.
void ExpectAllIntegerMarks(const JsonValue& value) {
  EXPECT_TRUE(value.IsInt());
  EXPECT_TRUE(value.IsUint());
  EXPECT_TRUE(value.IsInt64());
  EXPECT_TRUE(value.IsUint64());
}

}  // namespace

TEST(SipJsonHeader, FreshMessageHasEmptyLayoutAndFallbacks) {
  SipJson message;
  EXPECT_EQ(kEmptyLayout, message.ToJson());
  EXPECT_EQ(0, message.m_CmdIndex);
  EXPECT_EQ(nullptr, message.m_pszExtra);
  EXPECT_EQ(0u, message.m_Nested);
  EXPECT_EQ(0u, Commands(message).Size());
  ExpectAllFallbacks(message);
}

TEST(SipJsonHeader, ClassInitStoresNamesAsReferencesToTheLiterals) {
  SipJson message;
  const JsonValue& root = message.Document();
  ASSERT_EQ(1u, root.MemberCount());
  const auto& sip = *root.MemberBegin();
  EXPECT_EQ(static_cast<const char*>(SipJson::kKeySip), sip.name.GetString());
  ASSERT_EQ(2u, sip.value.MemberCount());
  const auto* members = &*sip.value.MemberBegin();
  EXPECT_EQ(static_cast<const char*>(SipJson::kKeyVersion), members[0].name.GetString());
  EXPECT_EQ(static_cast<const char*>(SipJson::kKeyCmd), members[1].name.GetString());
}

TEST(SipJsonHeader, VersionCarriesAllFourIntegerMarks) {
  SipJson message;
  const JsonValue& version = message.Document()["SIP"]["V"];
  ExpectAllIntegerMarks(version);
  EXPECT_EQ(1u, version.GetUint());
}

TEST(SipJsonHeader, ClassInitResetsAFilledMessage) {
  SipJson message;
  Load(message, R"({"SIP":{"V":7,"CMD":[{"OC":13313,"ST":0},{"OC":1}]},"X":1})");
  message.m_CmdIndex = 1;
  char* extra = static_cast<char*>(std::calloc(4, 1));
  message.m_pszExtra = extra;
  message.ClassInit();
  EXPECT_EQ(kEmptyLayout, message.ToJson());
  EXPECT_EQ(0, message.m_CmdIndex);
  // Reset without freeing: the owner releases the string first.
  EXPECT_EQ(nullptr, message.m_pszExtra);
  std::free(extra);
}

TEST(SipJsonHeader, FirstSetStatusAppendsOneObjectAndSecondReplaces) {
  SipJson message;
  message.SetStatus(1);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"ST":1}]}})", message.ToJson());
  EXPECT_EQ(1u, message.Status());
  const JsonValue& command = Commands(message)[0];
  EXPECT_EQ(static_cast<const char*>(SipJson::kKeyStatus), command.MemberBegin()->name.GetString());

  message.SetStatus(0);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"ST":0}]}})", message.ToJson());
  EXPECT_EQ(1u, Commands(message)[0].MemberCount());
  EXPECT_EQ(0u, message.Status());
}

TEST(SipJsonHeader, SetStatusReplacesInPlaceKeepingMemberOrder) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1,"ST":5,"DA":2}]}})");
  message.SetStatus(9);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1,"ST":9,"DA":2}]}})", message.ToJson());
}

TEST(SipJsonHeader, SetStatusTwoBeyondTheEndPadsWithObjectAndNullsAndWritesNothing) {
  SipJson message;
  message.m_CmdIndex = 2;
  message.SetStatus(0);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{},null,null]}})", message.ToJson());
  EXPECT_EQ(22u, message.Status());
}

TEST(SipJsonHeader, SetStatusOneBeyondTheEndWritesIntoTheAppendedObject) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1}]}})");
  message.m_CmdIndex = 1;
  message.SetStatus(3);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1},{"ST":3}]}})", message.ToJson());
  EXPECT_EQ(3u, message.Status());
}

TEST(SipJsonHeader, SetStatusOnANonObjectCommandWritesNothing) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[7]}})");
  message.SetStatus(1);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[7]}})", message.ToJson());
}

TEST(SipJsonHeader, ModuleIdSplitsIntoIndexAndLayer) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"MI":131077}]}})");  // 0x20005
  EXPECT_EQ(5u, message.ModuleIndex());
  EXPECT_EQ(2u, message.ModuleLayer());
}

TEST(SipJsonHeader, ReadsEveryHeaderFieldOfTheCurrentCommand) {
  SipJson message;
  Load(message,
       R"({"SIP":{"V":1,"CMD":[{"OC":1},)"
       R"({"OC":13313,"OE":2,"OI":3,"MI":4294901761,"CA":4294967295,"ST":0,"TO":30}]}})");
  message.m_CmdIndex = 1;
  EXPECT_EQ(0x3401u, message.OpCode());
  EXPECT_EQ(2u, message.OpCodeExt());
  EXPECT_EQ(3u, message.ObjectId());
  EXPECT_EQ(0xFFFFu, message.ModuleLayer());
  EXPECT_EQ(1u, message.ModuleIndex());
  EXPECT_EQ(0xFFFFFFFFu, message.CabinetNr());
  EXPECT_EQ(0u, message.Status());
  EXPECT_EQ(30u, message.GetCmdValue(message.m_CmdIndex, "TO", 0));
}

TEST(SipJsonHeader, SignedAndWideNumbersReadAsTheirLow32Bits) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":-1,"OE":4294967297,"OI":-4294967296}]}})");
  EXPECT_EQ(0xFFFFFFFFu, message.OpCode());
  EXPECT_EQ(1u, message.OpCodeExt());
  EXPECT_EQ(0u, message.ObjectId());
}

TEST(SipJsonHeader, HighStatusIsStoredUnsignedOnlyAndReadsBackUnchanged) {
  for (unsigned int status : {0x80000000u, 0xFFFFFFFFu}) {
    SipJson message;
    message.SetStatus(status);
    const JsonValue& st = Commands(message)[0]["ST"];
    EXPECT_TRUE(st.IsUint());
    EXPECT_TRUE(st.IsUint64());
    EXPECT_FALSE(st.IsInt());
    // The library also marks it signed 64-bit, the value fitting there.
    EXPECT_TRUE(st.IsInt64());
    EXPECT_EQ(status, message.Status());
    EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"ST":)" + std::to_string(status) + "}]}}",
              message.ToJson());
  }
}

TEST(SipJsonHeader, LowStatusCarriesSignedMarksToo) {
  SipJson message;
  message.SetStatus(0x7FFFFFFFu);
  const JsonValue& st = Commands(message)[0]["ST"];
  ExpectAllIntegerMarks(st);
  EXPECT_EQ(0x7FFFFFFFu, message.Status());
}

TEST(SipJsonHeader, NonNumberHeaderMembersReadAsFallbacksWithoutError) {
  SipJson message;
  Load(message,
       R"({"SIP":{"V":1,"CMD":[{"OC":"13313","OE":[1],"OI":{"a":1},"MI":true,"CA":1.5,"ST":null}]}})");
  EXPECT_NO_THROW(ExpectAllFallbacks(message));
}

TEST(SipJsonHeader, MalformedEnvelopesReadAsFallbacks) {
  const char* documents[] = {
      R"({})",
      R"({"SIP":[{"OC":1}]})",
      R"({"SIP":"x"})",
      R"({"SIP":{"V":1}})",
      R"({"SIP":{"V":1,"CMD":{"OC":1}}})",
      R"({"SIP":{"V":1,"CMD":"OC"}})",
      R"({"SIP":{"V":1,"CMD":[]}})",
      R"({"SIP":{"V":1,"CMD":["OC"]}})",
      R"({"SIP":{"V":1,"CMD":[null]}})",
      R"({"SIP":{"V":1,"CMD":[[{"OC":1}]]}})",
      R"([{"SIP":{"V":1,"CMD":[{"OC":1}]}}])",
      R"(5)",
  };
  for (const char* text : documents) {
    SCOPED_TRACE(text);
    SipJson message;
    Load(message, text);
    EXPECT_NO_THROW(ExpectAllFallbacks(message));
  }
}

TEST(SipJsonHeader, IndexPastTheEndOrNegativeReadsFallbacks) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1,"OE":1,"OI":1,"MI":65537,"CA":1,"ST":1}]}})");
  for (int index : {1, 100, -1, INT_MIN}) {
    SCOPED_TRACE(index);
    message.m_CmdIndex = index;
    ExpectAllFallbacks(message);
  }
  message.m_CmdIndex = 0;
  EXPECT_EQ(1u, message.OpCode());
  EXPECT_EQ(1u, message.Status());
}

// Keys are compared byte for byte including their length, and of several
// members with the same name the first one is the one read and written.
TEST(SipJsonHeader, MemberLookupIsExactAndTheFirstMatchWins) {
  SipJson message;
  Load(message,
       R"({"SIP":{"V":1,"CMD":[{"O":7,"OCX":8,"oc":9,"OC\u0000":10,"OC":1,"ST":3,"OC":2,)"
       R"("ST":4,"DA":5,"DA":"x"}],"CMD":[{"OC":98}]},"SIP":{"V":1,"CMD":[{"OC":99}]}})");
  EXPECT_EQ(1u, message.OpCode());
  EXPECT_EQ(3u, message.Status());
  EXPECT_EQ(0u, message.ObjectId());
  EXPECT_EQ(6u, message.GetCmdDataType(0));
  EXPECT_EQ(5u, message.UIntValue());
  EXPECT_EQ(7u, message.GetCmdValue(0, "O", 0));
  EXPECT_EQ(0u, message.GetCmdValue(0, "OCXY", 0));

  message.SetStatus(0);
  message.SetCmdValue(message.GetCmd(), "OC", 5, 0);
  EXPECT_EQ(
      R"({"SIP":{"V":1,"CMD":[{"O":7,"OCX":8,"oc":9,"OC\u0000":10,"OC":5,"ST":0,"OC":2,)"
      R"("ST":4,"DA":5,"DA":"x"}],"CMD":[{"OC":98}]},"SIP":{"V":1,"CMD":[{"OC":99}]}})",
      message.ToJson());
}

TEST(SipJsonHeader, FindCmdMemberWalksTheHeaderPath) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1},{"OC":2,"DA":"x"}]}})");
  const JsonValue* oc = message.FindCmdMember(1, "OC");
  ASSERT_NE(nullptr, oc);
  EXPECT_EQ(&Commands(message)[1]["OC"], oc);
  EXPECT_EQ(nullptr, message.FindCmdMember(0, "DA"));
  EXPECT_EQ(nullptr, message.FindCmdMember(2, "OC"));
  EXPECT_EQ(nullptr, message.FindCmdMember(-1, "OC"));
  EXPECT_EQ(nullptr, message.FindCmdMember(0, nullptr));
  EXPECT_EQ(nullptr, message.FindCmdMember(0, "oc"));  // case-sensitive
}

TEST(SipJsonHeader, NegativeIndexStatusAndGetCmdLeaveTheDocumentUnchanged) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1}]}})");
  message.m_CmdIndex = -1;
  message.SetStatus(5);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1}]}})", message.ToJson());

  JsonValue& command = message.GetCmd();
  EXPECT_TRUE(command.IsNull());
  EXPECT_EQ(0, message.SetCmdValue(command, "ST", 5, 0));
  command.SetObject();  // a caller writing into it still does not reach the document
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1}]}})", message.ToJson());
  EXPECT_TRUE(message.GetCmd().IsNull());  // handed out null again
}

TEST(SipJsonHeader, WithoutEnvelopeStatusAndGetCmdWriteNothing) {
  const char* documents[] = {
      R"({})",
      R"({"SIP":[1]})",
      R"({"SIP":{"V":1}})",
      R"({"SIP":{"V":1,"CMD":{"OC":1}}})",
      R"({"SIP":{"V":1,"CMD":"x"}})",
      R"([1,2])",
      R"("text")",
  };
  for (const char* text : documents) {
    SCOPED_TRACE(text);
    SipJson message;
    Load(message, text);
    const std::string before = message.ToJson();
    EXPECT_NO_THROW(message.SetStatus(1));
    EXPECT_EQ(before, message.ToJson());
    JsonValue* command = nullptr;
    EXPECT_NO_THROW(command = &message.GetCmd());
    EXPECT_TRUE(command->IsNull());
    EXPECT_EQ(0, message.SetCmdValue(*command, "OC", 1, 0));
    EXPECT_EQ(before, message.ToJson());
    EXPECT_EQ(22u, message.Status());
  }
}

TEST(SipJsonHeader, AbsurdIndexIsNotPadded) {
  SipJson message;
  message.m_CmdIndex = INT_MAX;
  message.SetStatus(1);
  EXPECT_TRUE(message.GetCmd().IsNull());
  EXPECT_EQ(kEmptyLayout, message.ToJson());
  EXPECT_EQ(22u, message.Status());

  message.m_CmdIndex = SipJson::kMaxPaddedCommands - 1;
  message.SetStatus(1);
  EXPECT_EQ(static_cast<rapidjson::SizeType>(SipJson::kMaxPaddedCommands),
            Commands(message).Size());
}

TEST(SipJsonHeader, PaddingGrowsCommandsTo16ThenDoubles) {
  SipJson message;
  message.SetStatus(0);
  EXPECT_EQ(1u, Commands(message).Size());
  EXPECT_EQ(16u, Commands(message).Capacity());

  message.m_CmdIndex = 15;
  message.GetCmd();
  EXPECT_EQ(16u, Commands(message).Size());
  EXPECT_EQ(16u, Commands(message).Capacity());

  message.m_CmdIndex = 16;
  message.GetCmd();
  EXPECT_EQ(17u, Commands(message).Size());
  EXPECT_EQ(32u, Commands(message).Capacity());
}

TEST(SipJsonHeader, ExtraStringPrecedesTheDocument) {
  SipJson message;
  const char* object = reinterpret_cast<const char*>(&message);
  EXPECT_EQ(object, reinterpret_cast<const char*>(&message.m_pszExtra));
  EXPECT_LT(reinterpret_cast<const char*>(&message.m_pszExtra),
            reinterpret_cast<const char*>(&message.m_Document));
  EXPECT_LT(reinterpret_cast<const char*>(&message.m_Nested),
            reinterpret_cast<const char*>(&message.m_CmdIndex));
}

TEST(SipJsonCopy, CopySharesNothingAndOutlivesTheSource) {
  const std::string text =
      R"({"SIP":{"V":1,"CMD":[{"OC":1},{"OC":13314,"ST":22,"MI":131077,)"
      R"("DA":{"FileType":2,"LocalFilePath":"/opt/korvex/Korvex_Data.zip","BmcFilePath":"x"}}]},)"
      R"("Z":[-5,4294967295,true,false,null]})";
  auto source = std::make_unique<SipJson>();
  Load(*source, text);
  source->m_CmdIndex = 1;
  source->m_pszExtra = static_cast<char*>(std::calloc(6, 1));
  std::strcpy(source->m_pszExtra, "extra");

  SipJson copy(*source);
  const char* sourcePath = (*source).Document()["SIP"]["CMD"][1]["DA"]["LocalFilePath"].GetString();
  const char* copyPath = Commands(copy)[1]["DA"]["LocalFilePath"].GetString();
  EXPECT_NE(sourcePath, copyPath);
  EXPECT_NE(source->m_pszExtra, copy.m_pszExtra);
  source.reset();

  EXPECT_EQ(text, copy.ToJson());
  EXPECT_EQ(1, copy.m_CmdIndex);
  EXPECT_EQ(0x3402u, copy.OpCode());
  EXPECT_EQ(5u, copy.ModuleIndex());
  ASSERT_NE(nullptr, copy.m_pszExtra);
  EXPECT_STREQ("extra", copy.m_pszExtra);
  EXPECT_STREQ("/opt/korvex/Korvex_Data.zip", Commands(copy)[1]["DA"]["LocalFilePath"].GetString());
}

TEST(SipJsonCopy, CopyDropsFractionsToNull) {
  SipJson source;
  Load(source, R"({"SIP":{"V":1,"CMD":[{"OC":1,"DA":{"d":1.5,"l":[1,2.5]}}]}})");
  SipJson copy(source);
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1,"DA":{"d":null,"l":[1,null]}}]}})", copy.ToJson());
}

TEST(SipJsonCopy, AssignmentReplacesTheTargetAndItsString) {
  SipJson source;
  source.SetStatus(4);
  source.m_CmdIndex = 0;
  source.m_pszExtra = static_cast<char*>(std::calloc(2, 1));
  source.m_pszExtra[0] = 'n';

  SipJson target;
  Load(target, R"({"SIP":{"V":1,"CMD":[{"OC":9},{"OC":8}]}})");
  target.m_CmdIndex = 1;
  target.m_pszExtra = static_cast<char*>(std::calloc(4, 1));  // freed by the copy

  target = source;
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"ST":4}]}})", target.ToJson());
  EXPECT_EQ(0, target.m_CmdIndex);
  ASSERT_NE(nullptr, target.m_pszExtra);
  EXPECT_STREQ("n", target.m_pszExtra);
  EXPECT_NE(source.m_pszExtra, target.m_pszExtra);
}

TEST(SipJsonCopy, NullSourceStringLeavesTargetStringNull) {
  SipJson source;
  source.SetStatus(0);
  SipJson target;
  target.m_pszExtra = static_cast<char*>(std::calloc(4, 1));
  target.CopyFrom(source);
  EXPECT_EQ(nullptr, target.m_pszExtra);
  EXPECT_EQ(source.ToJson(), target.ToJson());
}

TEST(SipJsonCopy, CopyOntoItselfChangesNothing) {
  SipJson message;
  Load(message, R"({"SIP":{"V":1,"CMD":[{"OC":1,"DA":"abc"}]}})");
  message.m_pszExtra = static_cast<char*>(std::calloc(2, 1));
  message.m_pszExtra[0] = 'e';
  char* extra = message.m_pszExtra;
  SipJson& alias = message;
  message = alias;
  EXPECT_EQ(R"({"SIP":{"V":1,"CMD":[{"OC":1,"DA":"abc"}]}})", message.ToJson());
  EXPECT_EQ(extra, message.m_pszExtra);
}

TEST(SipJsonCopy, NonObjectSourceRootGivesTheEmptyLayout) {
  SipJson source;
  Load(source, R"([1,2])");
  source.m_CmdIndex = 3;
  SipJson copy(source);
  EXPECT_EQ(kEmptyLayout, copy.ToJson());
  EXPECT_EQ(3, copy.m_CmdIndex);
}
