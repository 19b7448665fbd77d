// UTF-8 validation with RapidJSON's own decoder, the one that reads the
// messages.
#include "host/emhost/serve/Utf8Check.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>

namespace {

// Validate copies what it accepts into an output stream; nothing is kept.
struct CDiscard {
  void Put(char) {}
};

}  // namespace

bool ValidUtf8(const char* text, std::size_t length) {
  rapidjson::MemoryStream input(text, length);
  CDiscard discard;
  while (input.Tell() < length) {
    if (!rapidjson::UTF8<char>::Validate(input, discard)) return false;
  }
  return true;
}
