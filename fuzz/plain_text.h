// The text encodings again, slow and straight from the standard's tables, for comparison.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace veld_report::fuzz {

inline constexpr std::uint32_t broken = 0xffffffff;

inline std::string Utf8(std::uint32_t codePoint) {
  if (codePoint > 0x10ffff) return {};
  const int tails = codePoint < 0x80 ? 0 : codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
  constexpr std::array<std::uint32_t, 4> heads = {0, 0xc0, 0xe0, 0xf0};
  std::string text(1, static_cast<char>(heads[static_cast<std::size_t>(tails)] | codePoint >> (6 * tails)));
  for (int i = tails - 1; i >= 0; --i)
    text.push_back(static_cast<char>(0x80 | (codePoint >> (6 * i) & 0x3f)));
  return text;
}

// Decodes the code point at `*at` and moves `*at` past it. Invalid bytes give `broken`, and `*at` moves past
// the longest valid prefix of a sequence, or past one byte (Unicode 15, table 3-7).
inline std::uint32_t NextUtf8(std::string_view text, std::size_t* at) {
  struct Row {
    unsigned first, last, tails, secondFirst, secondLast;
  };
  static constexpr Row table[] = {
      {0x00, 0x7f, 0, 0, 0},       {0xc2, 0xdf, 1, 0x80, 0xbf}, {0xe0, 0xe0, 2, 0xa0, 0xbf},
      {0xe1, 0xec, 2, 0x80, 0xbf}, {0xed, 0xed, 2, 0x80, 0x9f}, {0xee, 0xef, 2, 0x80, 0xbf},
      {0xf0, 0xf0, 3, 0x90, 0xbf}, {0xf1, 0xf3, 3, 0x80, 0xbf}, {0xf4, 0xf4, 3, 0x80, 0x8f}};
  const auto byte = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
  const unsigned lead = byte(*at);
  for (const Row& row : table) {
    if (lead < row.first || lead > row.last) continue;
    std::uint32_t value = row.tails == 0 ? lead : lead & (0x3fu >> row.tails);
    for (unsigned i = 1; i <= row.tails; ++i) {
      const unsigned next = byte(*at + i);
      if (next < (i == 1 ? row.secondFirst : 0x80) || next > (i == 1 ? row.secondLast : 0xbf)) {
        *at += i;
        return broken;
      }
      value = value << 6 | (next & 0x3f);
    }
    *at += 1 + row.tails;
    return value;
  }
  ++*at;
  return broken;
}

// Decodes the code point at `*at`; a lone surrogate stands for itself.
inline std::uint32_t NextUtf16(std::u16string_view text, std::size_t* at) {
  const std::uint32_t unit = text[(*at)++];
  if (unit < 0xd800 || unit > 0xdbff || *at == text.size()) return unit;
  const std::uint32_t next = text[*at];
  if (next < 0xdc00 || next > 0xdfff) return unit;
  ++*at;
  return 0x10000 + (unit - 0xd800) * 0x400 + (next - 0xdc00);
}

inline bool IsHalfPair(std::uint32_t codePoint) { return codePoint >= 0xd800 && codePoint <= 0xdfff; }

// Replaces everything invalid by U+FFFD.
inline std::string Repaired(std::string_view utf8) {
  std::string text;
  for (std::size_t at = 0; at < utf8.size();) {
    const std::uint32_t codePoint = NextUtf8(utf8, &at);
    text += Utf8(codePoint == broken ? 0xfffd : codePoint);
  }
  return text;
}
inline std::string Repaired(std::u16string_view utf16) {
  std::string text;
  for (std::size_t at = 0; at < utf16.size();) {
    const std::uint32_t codePoint = NextUtf16(utf16, &at);
    text += Utf8(IsHalfPair(codePoint) ? 0xfffd : codePoint);
  }
  return text;
}

}  // namespace veld_report::fuzz
