// Whether text is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing beyond U+10FFFF): serve refuses other lines, so that its events
// stay valid JSON.
#pragma once

#include <cstddef>

bool ValidUtf8(const char* text, std::size_t length);
