// CSVString: a std::string with printf-style formatting into itself.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

// printf format checking of Format's arguments. GCC checks each
// instantiation; clang accepts the attribute only on a parameter declared
// as a character pointer, not on the template's const CharT*, and refuses
// to compile (the libFuzzer targets are built with clang), so it goes
// without the check there.
#if defined(__clang__)
#define KORVEX_SVSTRING_FORMAT
#else
#define KORVEX_SVSTRING_FORMAT __attribute__((format(printf, 2, 3)))
#endif

template <class StringT, class CharT>
class CSVString : public StringT {
 public:
  using StringT::StringT;
  CSVString() = default;
  CSVString(const StringT& other) : StringT(other) {}  // NOLINT(google-explicit-constructor)

  // Replaces the contents with the formatted text; no fixed buffer.
  CSVString& Format(const CharT* format, ...) KORVEX_SVSTRING_FORMAT {
    va_list args;
    va_start(args, format);
    FormatV(*this, format, args);
    va_end(args);
    return *this;
  }

  // Formats into target and returns the count of characters written. A
  // format error makes the measured count negative; the resize then throws
  // std::length_error before anything is written.
  static int FormatV(StringT& target, const CharT* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int measured = std::vsnprintf(nullptr, 0, format, args);
    try {
      target.resize(static_cast<typename StringT::size_type>(static_cast<long long>(measured)), CharT());
    } catch (...) {
      va_end(copy);
      throw;
    }
    // data() of a non-const std::string is the string's own buffer: C++11
    // strings never share storage with a copy, so writing here cannot reach
    // another string.
    const int written = std::vsnprintf(&target[0], target.size() + 1, format, copy);
    va_end(copy);
    return written;
  }
};
