// CStringMapper: C strings to byte strings for the command-data readers.
#include "message/StringMapper.h"

#include <string>

std::string CStringMapper::StringToUTF8(const char* text) {
  // Messages carry UTF-8 already: the bytes are taken as they are, with no
  // code-page conversion, up to the first 0 byte.
  if (text == nullptr) {
    return std::string();
  }
  return std::string(text);
}
