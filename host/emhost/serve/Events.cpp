// serve's event lines through RapidJSON's writer (see Events.h).
#include "host/emhost/serve/Events.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace {

using CBuffer = rapidjson::GenericStringBuffer<JsonEncoding, JsonAllocator>;
using CWriter = rapidjson::Writer<CBuffer, JsonEncoding, JsonEncoding, JsonAllocator>;

// One event object under construction; Line() closes it.
class CEventLine {
 public:
  CEventLine() : m_Writer(m_Buffer) { m_Writer.StartObject(); }

  CEventLine& Key(const char* key) {
    m_Writer.Key(key);
    return *this;
  }
  // The id is already compact JSON (CompactJson), written as it is.
  CEventLine& Id(const std::string& id) {
    Key("id");
    m_Writer.RawValue(id.data(), id.size(), rapidjson::kObjectType);
    return *this;
  }
  CEventLine& Event(const char* name) {
    Key("event");
    m_Writer.String(name);
    return *this;
  }
  CEventLine& Text(const char* key, const std::string& text) {
    Key(key);
    m_Writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    return *this;
  }
  CEventLine& Number(const char* key, long long number) {
    Key(key);
    m_Writer.Int64(number);
    return *this;
  }
  CEventLine& Count(const char* key, unsigned long long count) {
    Key(key);
    m_Writer.Uint64(count);
    return *this;
  }
  CEventLine& Json(const char* key, const JsonValue& value) {
    Key(key);
    value.Accept(m_Writer);
    return *this;
  }
  std::string Line() {
    m_Writer.EndObject();
    return std::string(m_Buffer.GetString(), m_Buffer.GetSize());
  }

 private:
  CBuffer m_Buffer;
  CWriter m_Writer;
};

}  // namespace

std::string CompactJson(const JsonValue& value) {
  CBuffer buffer;
  CWriter writer(buffer);
  value.Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

std::string AckEvent(const std::string& id, long long result, const JsonValue& message) {
  return CEventLine().Id(id).Event("ack").Number("result", result).Json("message", message).Line();
}

std::string ReplyEvent(const std::string& id, const JsonValue& message) {
  return CEventLine().Id(id).Event("reply").Json("message", message).Line();
}

std::string TransferEvent(const JsonValue& request) {
  return CEventLine().Event("transfer").Json("message", request).Line();
}

std::string ControlEvent(const std::string& id, const std::string& control, long long result) {
  return CEventLine()
      .Id(id)
      .Event("control")
      .Text("control", control)
      .Number("result", result)
      .Line();
}

std::string ErrorEvent(unsigned long line, const std::string& text) {
  return CEventLine().Event("error").Count("line", line).Text("error", text).Line();
}
