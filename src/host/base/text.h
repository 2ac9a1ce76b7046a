// Conversions between the host's std::string (always UTF-8) and the strings of the contract.
#pragma once

#include <string>
#include <string_view>

#include "types/basic_string.h"

namespace veld_report::host {

inline std::string_view View(const zel::string& text) { return text.View(); }
inline std::string ToStd(const zel::string& text) { return std::string(text.View()); }
// Uses no allocator, so its memory comes from the process heap.
inline zel::string ToNarrow(std::string_view text) { return zel::string(text); }

// UTF-16 to UTF-8; a lone surrogate becomes its 3-byte form. Throws std::bad_alloc.
std::string ToUtf8(std::u16string_view text);
// UTF-8 to UTF-16. Throws std::invalid_argument with the byte offset if the text isn't valid UTF-8.
zel::wstring ToWide(std::string_view utf8);
// Length in bytes of the valid UTF-8 sequence at the front of `text`; 0 if there is none (an overlong form, a
// surrogate, a value above 0x10ffff, a truncated sequence).
std::size_t ValidUtf8Prefix(std::string_view text);

}  // namespace veld_report::host
