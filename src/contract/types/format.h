// Padding and number output to wide strings, for the display texts of exceptions.
//
// Trace lines don't use it: trace/trace_stream.h writes them to the tracer's buffer. Every function returns
// the number of UTF-16 units written and throws what the string's growth throws.
#pragma once

#include <cstdint>

#include "types/basic_string.h"

namespace zel {

struct FormatSpec {
  std::int32_t width = 0;       // minimum number of characters in the output
  std::int32_t radix = 10;      // 2 to 36
  std::int32_t precision = -1;  // maximum number of bytes of a narrow text; negative: all
  std::int32_t alignment = 1;   // positive: pad before, negative: after, 0: between prefix and text
  std::uint32_t fill = 0x20;    // padding character; 0x10000 and above: none
  bool showBase = false;        // a base prefix before a number
};

std::uint64_t AppendFill(wstring* out, std::uint64_t count, std::uint32_t fill);
std::uint64_t AppendAligned(wstring* out, const FormatSpec& format, std::u16string_view text,
                            std::u16string_view prefix);
// Converts each byte of the NUL-terminated text separately through the locale. A byte that doesn't convert
// ends the text without an error.
std::uint64_t AppendNarrowAligned(wstring* out, const FormatSpec& format, const char* text);
std::uint64_t AppendNumber(wstring* out, const FormatSpec& format, std::uint32_t value);

}  // namespace zel
