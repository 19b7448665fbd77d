// serve's event lines: exact bytes, member order, the id echoed as the
// request gave it, messages embedded as compact JSON in document order, and
// the writer's escaping of control characters while other UTF-8 passes.
#include "host/emhost/serve/Events.h"
#include "message/DataStruct.h"
#include "message/SipJson.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

// The compact JSON of a value parsed from text.
std::string Compact(const std::string& text) {
  CDataStruct document;
  std::string error;
  EXPECT_TRUE(document.FromJson(text.data(), text.size(), 32, &error)) << error;
  return CompactJson(document.Document());
}

}  // namespace

TEST(EmHostEvents, TheIdIsEchoedAsGivenInDocumentOrder) {
  EXPECT_EQ(Compact("{ \"z\" : [1, 2.5, \"x\"], \"a\" : null }"),
            "{\"z\":[1,2.5,\"x\"],\"a\":null}");
  EXPECT_EQ(Compact("-7"), "-7");
  EXPECT_EQ(Compact("\"\\u00e9\\n\""), "\"\xC3\xA9\\n\"");
  EXPECT_EQ(ControlEvent(Compact("{\"b\":1,\"a\":2}"), "quit", 1),
            "{\"id\":{\"b\":1,\"a\":2},\"event\":\"control\",\"control\":\"quit\",\"result\":1}");
  EXPECT_EQ(ControlEvent(kNoId, "wait", 0),
            "{\"id\":null,\"event\":\"control\",\"control\":\"wait\",\"result\":0}");
}

TEST(EmHostEvents, AckReplyAndTransferEmbedTheMessageAsItsOwnCompactJson) {
  SipJson message;
  const std::string text =
      "{\"SIP\":{\"V\":1,\"CMD\":[{\"OC\":13313,\"ST\":22,\"TO\":1.5,\"DA\":\"caf\xC3\xA9\"}]}}";
  std::string error;
  ASSERT_TRUE(message.FromJson(text.data(), text.size(), 32, &error)) << error;
  const std::string json = message.ToJson();
  EXPECT_EQ(json, text);
  EXPECT_EQ(AckEvent("\"r1\"", 1, message.Document()),
            "{\"id\":\"r1\",\"event\":\"ack\",\"result\":1,\"message\":" + json + "}");
  EXPECT_EQ(AckEvent("3", -1, message.Document()),
            "{\"id\":3,\"event\":\"ack\",\"result\":-1,\"message\":" + json + "}");
  EXPECT_EQ(ReplyEvent("[1]", message.Document()),
            "{\"id\":[1],\"event\":\"reply\",\"message\":" + json + "}");
  EXPECT_EQ(TransferEvent(message.Document()), "{\"event\":\"transfer\",\"message\":" + json + "}");
}

TEST(EmHostEvents, ControlCharactersAreEscapedAndOtherUtf8PassesThrough) {
  const std::string text = std::string("a\x01") + "b\n\t\r\b\f\"\\/" + "\x1F" +
                           "\xC3\xA9\xE2\x82\xAC" + "\xF0\x9F\x98\x80" + std::string(1, '\0') + "z";
  EXPECT_EQ(ErrorEvent(3, text),
            "{\"event\":\"error\",\"line\":3,\"error\":\"a\\u0001b\\n\\t\\r\\b\\f\\\"\\\\/"
            "\\u001F\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\\u0000z\"}");
  EXPECT_EQ(ControlEvent("1", "st\x7Fop\x02", 0),
            "{\"id\":1,\"event\":\"control\",\"control\":\"st\x7Fop\\u0002\",\"result\":0}");
}

TEST(EmHostEvents, NumbersAreWrittenWhole) {
  EXPECT_EQ(ErrorEvent(ULONG_MAX, ""),
            "{\"event\":\"error\",\"line\":" + std::to_string(ULONG_MAX) + ",\"error\":\"\"}");
  EXPECT_EQ(ControlEvent("0", "setup", 4294967295LL),
            "{\"id\":0,\"event\":\"control\",\"control\":\"setup\",\"result\":4294967295}");
  EXPECT_EQ(ControlEvent("0", "wait", -2),
            "{\"id\":0,\"event\":\"control\",\"control\":\"wait\",\"result\":-2}");
}
