// Conversions between UTF-16, UTF-8 and the text of the runtime library's locale.
//
// WideToUtf8 is for data and can't fail but for memory. WideToNarrow and NarrowToWide go through the current
// locale and are for text meant for display: a character that the locale lacks fails the whole conversion,
// nothing is substituted. The locale is read, never set. There is no UTF-8 decoder here.
//
// A lone surrogate is never an error in UTF-16: it stands for itself and becomes its 3-byte form.
// All functions may run on any thread and share no state.
#pragma once

#include <cstdint>
#include <string_view>

#include "types/basic_string.h"

namespace zel {

// Writes the UTF-8 form of any value up to 0x10ffff, by value alone. `out` has room for 4 bytes.
// Returns the bytes written, 1 to 4, or 0 for a code point above 0x10ffff.
std::uint32_t EncodeUtf8(std::uint32_t codePoint, char* out);

// The UTF-8 length of UTF-16 text in bytes, and its encoding into a buffer of that many.
std::uint64_t Utf8Length(std::u16string_view text);
void EncodeUtf8(std::u16string_view text, char* out);

// Replace the content of `out`. Return 0 or, with `out` as it was, 0x80000041 "Out of memory"; WideToNarrow
// also 0x80000046 "Invalid argument" for a character that the locale can't represent.
ResultCode WideToUtf8(std::u16string_view text, string* out);
ResultCode WideToNarrow(std::u16string_view text, string* out);

// A new wide string without allocator. Throw std::bad_alloc, and std::bad_cast for text that isn't valid in
// the locale. A null pointer counts as an empty text; an embedded NUL of a string is a character.
wstring NarrowToWide(const char* text);
wstring NarrowToWide(const string& text);

// Each byte as exactly two lower-case hexadecimal digits.
string HexText(const std::uint8_t* bytes, std::uint64_t count);

}  // namespace zel
