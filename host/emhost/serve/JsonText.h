// Compact JSON text for em-host's output lines.
#pragma once

#include "message/JsonTypes.h"

#include <string>

// The value as compact JSON, members in document order.
std::string CompactJson(const JsonValue& value);
// text as a JSON string literal, quotes included.
std::string JsonQuote(const std::string& text);
