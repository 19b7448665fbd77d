// Compact JSON writing with RapidJSON's Writer.
#include "host/emhost/serve/JsonText.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace {

using CBuffer = rapidjson::GenericStringBuffer<JsonEncoding, JsonAllocator>;
using CWriter = rapidjson::Writer<CBuffer, JsonEncoding, JsonEncoding, JsonAllocator>;

}  // namespace

std::string CompactJson(const JsonValue& value) {
  CBuffer buffer;
  CWriter writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string JsonQuote(const std::string& text) {
  CBuffer buffer;
  CWriter writer(buffer);
  writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  return std::string(buffer.GetString(), buffer.GetSize());
}
