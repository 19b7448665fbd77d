// C string to byte string, for the byte-stream readers of command data.
#pragma once

#include <string>

class CStringMapper {
 public:
  // The bytes of text up to its first 0 byte, unchanged (the text is UTF-8
  // already); an empty string for null.
  static std::string StringToUTF8(const char* text);
};
