// Conversions between UTF-16, UTF-8 and the text of the runtime library's locale.
//
// WideToUtf8 is for data and can only fail for lack of memory. WideToNarrow and NarrowToWide use the current
// locale and are for display text. A character that the locale lacks fails the whole conversion; nothing is
// substituted. The locale is read, never set. There is no UTF-8 decoder here.
//
// A lone surrogate is never an error in UTF-16: it stands for itself and becomes its 3-byte form. All
// functions are thread-safe and share no state.
#pragma once

#include <cstdint>
#include <string_view>

#include "types/basic_string.h"

namespace zel {

// Writes the UTF-8 form of any value up to 0x10ffff, surrogates included. `out` has room for 4 bytes. Returns
// the number of bytes, 1 to 4, or 0 for a value above 0x10ffff.
std::uint32_t EncodeUtf8(std::uint32_t codePoint, char* out);

// The length in bytes of UTF-16 text as UTF-8, and its encoding to a buffer of that size.
std::uint64_t Utf8Length(std::u16string_view text);
void EncodeUtf8(std::u16string_view text, char* out);

// Replace the content of `out` and return 0. On failure `out` doesn't change: 0x80000041 "Out of memory", and
// from WideToNarrow 0x80000046 "Invalid argument" for a character that the locale lacks.
ResultCode WideToUtf8(std::u16string_view text, string* out);
ResultCode WideToNarrow(std::u16string_view text, string* out);

// Return a new wide string without allocator. Throw std::bad_alloc, and std::bad_cast for text that isn't
// valid in the locale. A null pointer counts as an empty text; an embedded NUL of a string is a character.
wstring NarrowToWide(const char* text);
wstring NarrowToWide(const string& text);

// Each byte as exactly two lower-case hexadecimal digits.
string HexText(const std::uint8_t* bytes, std::uint64_t count);

}  // namespace zel
