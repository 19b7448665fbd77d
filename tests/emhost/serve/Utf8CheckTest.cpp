// serve's UTF-8 check: what a line may hold so that the events stay JSON.
#include "host/emhost/serve/Utf8Check.h"

#include <gtest/gtest.h>

#include <string>

namespace {

bool Valid(const std::string& text) { return ValidUtf8(text.data(), text.size()); }

}  // namespace

TEST(EmHostUtf8, WellFormedTextIsAccepted) {
  EXPECT_TRUE(Valid(""));
  EXPECT_TRUE(Valid("plain ASCII {\"id\":1}"));
  EXPECT_TRUE(Valid(std::string("nul \0 inside", 12)));
  EXPECT_TRUE(Valid("\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"));
  EXPECT_TRUE(Valid("\xF4\x8F\xBF\xBF"));  // U+10FFFF, the last
  EXPECT_TRUE(Valid("\xED\x9F\xBF"));      // U+D7FF, just below the surrogates
}

TEST(EmHostUtf8, MalformedTextIsRefused) {
  EXPECT_FALSE(Valid("\xC3"));                   // cut short
  EXPECT_FALSE(Valid("a\xE2\x82"));              // cut short at the end
  EXPECT_FALSE(Valid("\x80"));                   // a lone continuation byte
  EXPECT_FALSE(Valid("\xC0\xAF"));               // overlong "/"
  EXPECT_FALSE(Valid("\xE0\x80\xAF"));           // overlong, three bytes
  EXPECT_FALSE(Valid("\xED\xA0\x80"));           // U+D800, a surrogate
  EXPECT_FALSE(Valid("\xF4\x90\x80\x80"));       // beyond U+10FFFF
  EXPECT_FALSE(Valid("\xFF"));                   // never in UTF-8
  EXPECT_FALSE(Valid("ok \xC3\xA9 then \xFE"));  // a bad byte after good ones
}
