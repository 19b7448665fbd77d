// The event lines of em-host serve, written with RapidJSON's writer: one
// compact JSON object per event, members in a fixed order, messages
// embedded as compact JSON in document order, a request's "id" echoed
// exactly as the request line gave it. Strings are escaped by the writer:
// quotes, backslashes and control characters, while other UTF-8 passes
// through as it is (serve refuses lines that are not valid UTF-8).
#pragma once

#include "message/JsonTypes.h"

#include <string>

// A value as compact JSON, members in document order: how a request's "id"
// is remembered until its events are written.
std::string CompactJson(const JsonValue& value);

// The id of a line without an "id".
constexpr const char* kNoId = "null";

// {"id":ID,"event":"ack","result":N,"message":MESSAGE}
std::string AckEvent(const std::string& id, long long result, const JsonValue& message);
// {"id":ID,"event":"reply","message":MESSAGE}
std::string ReplyEvent(const std::string& id, const JsonValue& message);
// {"event":"transfer","message":REQUEST}
std::string TransferEvent(const JsonValue& request);
// {"id":ID,"event":"control","control":NAME,"result":N}
std::string ControlEvent(const std::string& id, const std::string& control, long long result);
// {"event":"error","line":N,"error":TEXT}
std::string ErrorEvent(unsigned long line, const std::string& text);
