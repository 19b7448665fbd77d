// Tests of CExtensionModule::TraceSip: the eight line formats, label
// padding, cabinet and data detection along the current command, and the
// values printed for each kind of data.
#include "frame/ExtensionModule.h"
#include "host/HostControl.h"
#include "message/SipJson.h"
#include "tests/frame/MemoryTraceTest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class TraceSipTest : public korvex_test::MemoryTraceTest {
 protected:
  // The trace of one TraceSip call on the message given as JSON text.
  static std::string Trace(const char* label, const std::string& json, int cmdIndex = 0,
                           int level = 3) {
    SipJson message;
    EXPECT_TRUE(message.FromJson(json.data(), json.size())) << json;
    message.m_CmdIndex = cmdIndex;
    halvane::TakeTrace();
    const unsigned long before = halvane::PrintCallCount();
    CExtensionModule::TraceSip(level, label, message);
    EXPECT_EQ(halvane::PrintCallCount() - before, 1u) << "one Print call per message";
    return halvane::TakeTrace();
  }

  static std::string Envelope(const std::string& command) {
    return R"({"SIP":{"V":1,"CMD":[)" + command + "]}}";
  }
};

TEST_F(TraceSipTest, NineteenCharacterRequestLabelGetsOneSpace) {
  EXPECT_EQ(
      Trace("EM_KORVEX (REQUEST)", Envelope(R"({"OC":13312,"OE":1,"OI":2,"MI":131077,"ST":1})")),
      "\nEM_KORVEX (REQUEST) : OC 0x3400-0x0001 OID 0x0002 MID 0x00020005 Stat 0x01");
}

TEST_F(TraceSipTest, ShortLabelIsPaddedToTwentyColumns) {
  EXPECT_EQ(Trace("EM_KORVEX (RETURN)", Envelope(R"({"OC":13312,"MI":131077,"ST":0})")),
            "\nEM_KORVEX (RETURN)  : OC 0x3400-0x0000 OID 0x0000 MID 0x00020005 Stat 0x00");
}

TEST_F(TraceSipTest, TwentyFiveCharacterLabelIsPrintedWholeWithoutPadding) {
  const char* const label = "EM_KORVEX (TRANSFER-RETN)";
  ASSERT_EQ(std::string(label).size(), 25u);
  EXPECT_EQ(Trace(label, Envelope(R"({"OC":13314,"MI":131077,"ST":0})")),
            "\nEM_KORVEX (TRANSFER-RETN): OC 0x3402-0x0000 OID 0x0000 MID 0x00020005 Stat 0x00");
}

TEST_F(TraceSipTest, NumberDataWithCabinet) {
  EXPECT_EQ(Trace("EM_KORVEX (RETURN)",
                  Envelope(R"({"OC":13313,"OE":0,"OI":0,"MI":131077,"CA":3,"ST":0,"DA":42})")),
            "\nEM_KORVEX (RETURN)  : OC 0x3401-0x0000 OID 0x0000 CABID 0003 MID 0x00020005 Stat "
            "0x00 Data 42");
}

TEST_F(TraceSipTest, NumberDataWithoutCabinet) {
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":13312,"MI":131077,"ST":0,"DA":1})")),
            "\nL                   : OC 0x3400-0x0000 OID 0x0000 MID 0x00020005 Stat 0x00 Data 1");
}

TEST_F(TraceSipTest, NumberFromTwoToTheThirtyFirstPrintsNegative) {
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":1,"ST":0,"DA":2147483648})")),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Data "
            "-2147483648");
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":1,"ST":0,"DA":4294967295})")),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Data -1");
}

TEST_F(TraceSipTest, StringDataWithAndWithoutCabinet) {
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":13312,"ST":0,"DA":"abc"})")),
            "\nL                   : OC 0x3400-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Data "
            "\"abc\"");
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":13312,"CA":12,"ST":0,"DA":"/opt/k/Korvex_Data.zip"})")),
            "\nL                   : OC 0x3400-0x0000 OID 0x0000 CABID 0012 MID 0x00000000 Stat "
            "0x00 Data \"/opt/k/Korvex_Data.zip\"");
}

TEST_F(TraceSipTest, ArrayOfFourNumbersPrintsTheByteStreamCount) {
  const std::string json = Envelope(R"({"OC":13313,"CA":3,"MI":131077,"ST":0,"DA":[1,2,3,4]})");
  SipJson message;
  ASSERT_TRUE(message.FromJson(json.data(), json.size()));
  std::vector<unsigned char> bytes{9, 9};
  ASSERT_TRUE(message.GetCmdDataStream(0, bytes));
  ASSERT_EQ(bytes.size(), 0u) << "an array whose first element is no string streams no bytes";
  EXPECT_EQ(Trace("L", json),
            "\nL                   : OC 0x3401-0x0000 OID 0x0000 CABID 0003 MID 0x00020005 Stat "
            "0x00 Len 0");
}

TEST_F(TraceSipTest, OtherDataPrintsItsByteCount) {
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":1,"ST":0,"DA":["a","bc"]})")),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Len 6");
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":1,"ST":0,"CA":1,"DA":{"RAW":[1,2,3]}})")),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 CABID 0001 MID 0x00000000 Stat "
            "0x00 Len 3");
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":1,"ST":0,"DA":{"FileType":2}})")),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Len 0");
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":1,"ST":0,"DA":true})")),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Len 0");
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":1,"ST":0,"DA":null})")),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00 Len 0");
}

TEST_F(TraceSipTest, CabinetWithoutData) {
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":13312,"CA":0,"ST":20})")),
            "\nL                   : OC 0x3400-0x0000 OID 0x0000 CABID 0000 MID 0x00000000 Stat "
            "0x14");
  EXPECT_EQ(Trace("L", Envelope(R"({"OC":13312,"CA":4294967295,"ST":0})")),
            "\nL                   : OC 0x3400-0x0000 OID 0x0000 CABID -001 MID 0x00000000 Stat "
            "0x00");
}

TEST_F(TraceSipTest, IndexPastTheEndGivesTheShortestFormatWithFallbacks) {
  const std::string json = Envelope(R"({"OC":13312,"CA":3,"MI":131077,"ST":0,"DA":42})");
  EXPECT_EQ(Trace("L", json, 1),
            "\nL                   : OC 0x0000-0x0000 OID 0x0000 MID 0x00000000 Stat 0x16");
  EXPECT_EQ(Trace("L", json, -1),
            "\nL                   : OC 0x0000-0x0000 OID 0x0000 MID 0x00000000 Stat 0x16");
}

TEST_F(TraceSipTest, TheCurrentCommandDecides) {
  const std::string json =
      Envelope(R"({"OC":13312,"ST":0},{"OC":13313,"CA":2,"MI":65538,"ST":1,"DA":"x"})");
  EXPECT_EQ(Trace("L", json, 0),
            "\nL                   : OC 0x3400-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00");
  EXPECT_EQ(Trace("L", json, 1),
            "\nL                   : OC 0x3401-0x0000 OID 0x0000 CABID 0002 MID 0x00010002 Stat "
            "0x01 Data \"x\"");
}

TEST_F(TraceSipTest, MessagesWithoutEnvelopeOrCommandAreTracedNotRefused) {
  const std::string shortest =
      "\nL                   : OC 0x0000-0x0000 OID 0x0000 MID 0x00000000 Stat 0x16";
  EXPECT_EQ(Trace("L", "{}"), shortest);
  EXPECT_EQ(Trace("L", R"({"SIP":5})"), shortest);
  EXPECT_EQ(Trace("L", R"({"SIP":{"V":1}})"), shortest);
  EXPECT_EQ(Trace("L", R"({"SIP":{"V":1,"CMD":{"CA":1,"DA":1}}})"), shortest);
  EXPECT_EQ(Trace("L", R"({"SIP":{"V":1,"CMD":[7]}})"), shortest);
  EXPECT_EQ(Trace("L", R"({"SIP":{"V":1,"CMD":[]}})"), shortest);
}

TEST_F(TraceSipTest, WideValuesKeepTheirDigitsAndTheModuleIdIsSplit) {
  EXPECT_EQ(
      Trace("L", Envelope(R"({"OC":74565,"OE":65536,"OI":1048575,"MI":4294901761,"ST":256})")),
      "\nL                   : OC 0x12345-0x10000 OID 0xFFFFF MID 0xFFFF0001 Stat 0x100");
}

TEST_F(TraceSipTest, NullLabelPrintsAnEmptyColumn) {
  EXPECT_EQ(Trace(nullptr, Envelope(R"({"OC":1,"ST":0})")),
            "\n                    : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00");
}

TEST_F(TraceSipTest, TheGivenLevelIsPassedToTheHost) {
  const std::string json = Envelope(R"({"OC":1,"ST":0})");
  halvane::SetTraceLevel(4);
  EXPECT_EQ(Trace("L", json, 0, 5), "");
  EXPECT_EQ(Trace("L", json, 0, 4),
            "\nL                   : OC 0x0001-0x0000 OID 0x0000 MID 0x00000000 Stat 0x00");
}

}  // namespace
