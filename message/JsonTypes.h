// The JSON value and document types of every message: RapidJSON's value
// interface over UTF-8 with the plain heap allocator.
//
// Always include RapidJSON through this header: it turns the library's
// internal assertions into exceptions (ModuleRequest answers those with
// status 13 instead of the process aborting), and the definition must be the
// same in every translation unit.
#pragma once

#include <stdexcept>
#include <string>

// The message is passed as a std::string: std::logic_error's const char*
// constructor is a newer library symbol (GLIBCXX_3.4.21) than the older
// hosts the plug-in must load into provide.
#ifndef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(x)   \
  ((x) ? static_cast<void>(0) \
       : throw std::logic_error(std::string("JSON value used as the wrong type: " #x)))
#endif
#ifndef RAPIDJSON_HAS_STDSTRING
#define RAPIDJSON_HAS_STDSTRING 1
#endif

#include <rapidjson/allocators.h>
#include <rapidjson/document.h>
#include <rapidjson/encodings.h>

using JsonEncoding = rapidjson::UTF8<>;
using JsonAllocator = rapidjson::CrtAllocator;
using JsonValue = rapidjson::GenericValue<JsonEncoding, JsonAllocator>;
using JsonDocument = rapidjson::GenericDocument<JsonEncoding, JsonAllocator, JsonAllocator>;

// JSON type codes, numbered as the library numbers them.
enum JsonType : unsigned char {
  JSON_TYPE_NULL = 0,
  JSON_TYPE_FALSE = 1,
  JSON_TYPE_TRUE = 2,
  JSON_TYPE_OBJECT = 3,
  JSON_TYPE_ARRAY = 4,
  JSON_TYPE_STRING = 5,
  JSON_TYPE_NUMBER = 6,
};
