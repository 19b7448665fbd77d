// Tests of CSVString<std::string,char>: printf-style formatting into the
// string itself, replacing its contents, without a length limit.
#include "util/SVString.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <stdexcept>
#include <string>

namespace {

using CString = CSVString<std::string, char>;

int CallFormatV(std::string& target, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int written = CString::FormatV(target, format, args);
  va_end(args);
  return written;
}

TEST(SVString, RootAndFileNameGiveExactlyTheirConcatenationReplacingOldContents) {
  CString path("previous contents that are longer than the result");
  const std::string root = "/opt/k/";
  CString& result = path.Format("%s%s", root.c_str(), "Korvex_Data.zip");
  EXPECT_EQ(&result, &path);
  EXPECT_EQ(path, "/opt/k/Korvex_Data.zip");
  EXPECT_EQ(path.size(), 22u);
  EXPECT_EQ(std::string(path.c_str()), "/opt/k/Korvex_Data.zip") << "no NUL inside the text";
}

TEST(SVString, ShorterStringGrowsToTheFormattedLength) {
  CString path("x");
  path.Format("%s%s", "/opt/k/", "Korvex");
  EXPECT_EQ(path, "/opt/k/Korvex");
  EXPECT_EQ(path.size(), 13u);
}

TEST(SVString, EmptyFormatLeavesAnEmptyString) {
  CString text("not empty");
  text.Format("%s", "");
  EXPECT_TRUE(text.empty());
  text = "again";
  // An empty format literal is what the trace conventions would call a
  // zero-length format; the compiler's format check is silenced for it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-zero-length"
  text.Format("");
#pragma GCC diagnostic pop
  EXPECT_EQ(text, "");
  EXPECT_EQ(text.size(), 0u);
}

TEST(SVString, CopySharingTheBufferStaysUnchanged) {
  CString original("/var/log/Korvex");
  const std::string copy = original;
  const CString copyAsSv = original;
  original.Format("%s-%d", "changed", 7);
  EXPECT_EQ(original, "changed-7");
  EXPECT_EQ(copy, "/var/log/Korvex");
  EXPECT_EQ(copyAsSv, "/var/log/Korvex");
}

TEST(SVString, FormatVReturnsTheCountWritten) {
  std::string target = "old";
  EXPECT_EQ(CallFormatV(target, "%04d|%x|%s", 7, 255u, "abc"), 11);
  EXPECT_EQ(target, "0007|ff|abc");
}

TEST(SVString, LongResultHasNoFixedLimit) {
  const std::string big(10000, 'k');
  CString text;
  text.Format("<%s>", big.c_str());
  EXPECT_EQ(text.size(), 10002u);
  EXPECT_EQ(text, "<" + big + ">");
}

TEST(SVString, FormatErrorThrowsLengthErrorAndWritesNothing) {
  // A wide character that the "C" locale cannot convert makes the measuring
  // call report an error.
  CString text("kept");
  EXPECT_THROW(text.Format("%ls", L"\x0100"), std::length_error);
  EXPECT_EQ(text, "kept");
}

}  // namespace
