// Small helpers shared by the message-model tests: load a document from JSON
// text and reach into a message's command list.
#pragma once

#include "message/DataStruct.h"
#include "message/SipJson.h"

#include <gtest/gtest.h>

#include <string>

namespace korvex_test {

// Replaces the document by the text; fails the test when it does not parse.
inline void Load(CDataStruct& data, const std::string& text) {
  std::string error;
  ASSERT_TRUE(data.FromJson(text.data(), text.size(), 32, &error)) << error << " in " << text;
}

inline JsonValue& Commands(SipJson& message) { return message.Document()["SIP"]["CMD"]; }

}  // namespace korvex_test
