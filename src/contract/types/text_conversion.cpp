#include "types/text_conversion.h"

#include <cstddef>
#include <cwchar>
#include <new>
#include <typeinfo>

#include "types/platform/locale_text.h"

namespace zel {
namespace {

// Calls `visit` for each code point of UTF-16 text, until it returns false.
template <class Visit>
bool ForEachCodePoint(std::u16string_view text, Visit&& visit) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t codePoint = text[i];
    const bool high = codePoint >= 0xd800 && codePoint <= 0xdbff;
    if (high && i + 1 < text.size() && text[i + 1] >= 0xdc00 && text[i + 1] <= 0xdfff) {
      codePoint = 0x10000 + ((codePoint & 0x3ff) << 10) + (text[i + 1] & 0x3ffu);
      ++i;
    }
    if (!visit(codePoint)) return false;
  }
  return true;
}

// Makes `size` the length of `out`, without initialising new characters. On failure the string doesn't
// change.
template <class C>
ResultCode Resize(basic_string_t<C>* out, std::uint64_t size) {
  if (size > out->size) {
    try {
      out->reserve_extra(size - out->size);
    } catch (...) {
      return eOutOfMemory;
    }
  }
  out->size = size;
  out->data[size] = C();
  return sOk;
}

// Writes one code point in the locale's encoding. Returns 0 if the locale lacks it. NUL takes one byte.
std::size_t EncodeNarrow(std::uint32_t codePoint, char (&buffer)[platform::characterRoom]) {
  if (codePoint == 0) {
    buffer[0] = '\0';
    return 1;
  }
  return platform::EncodeCharacter(codePoint, buffer);
}

// Calls `visit` for each character of locale text, as the value of a wchar_t. False at an invalid sequence.
template <class Visit>
bool ForEachNarrowCharacter(const char* text, std::uint64_t size, Visit&& visit) {
  for (std::uint64_t i = 0; i < size;) {
    if (text[i] == '\0') {
      visit(0u);
      ++i;
      continue;
    }
    std::mbstate_t state{};
    wchar_t character = 0;
    const std::size_t length = std::mbrtowc(&character, text + i, size - i, &state);
    if (length == 0 || length == static_cast<std::size_t>(-1) || length == static_cast<std::size_t>(-2))
      return false;
    visit(static_cast<std::uint32_t>(character));
    i += length;
  }
  return true;
}

// The number of UTF-16 units for a wchar_t: a value above 0xffff takes two, one above 0x10ffff none.
std::uint64_t UnitCount(std::uint32_t character) {
  if (character < 0x10000) return 1;
  return character <= 0x10ffff ? 2 : 0;
}

ResultCode NarrowToWide(const char* text, std::uint64_t size, wstring* out) {
  std::uint64_t units = 0;
  const bool valid =
      ForEachNarrowCharacter(text, size, [&](std::uint32_t character) { units += UnitCount(character); });
  if (!valid) return eInvalidArgument;
  if (const ResultCode code = Resize(out, units); Failed(code)) return code;
  char16_t* place = out->data;
  ForEachNarrowCharacter(text, size, [&](std::uint32_t character) {
    if (UnitCount(character) == 1) {
      *place++ = static_cast<char16_t>(character);
    } else if (UnitCount(character) == 2) {
      *place++ = static_cast<char16_t>(0xd800 + ((character - 0x10000) >> 10));
      *place++ = static_cast<char16_t>(0xdc00 + ((character - 0x10000) & 0x3ff));
    }
  });
  return sOk;
}

wstring NarrowToWideOrThrow(const char* text, std::uint64_t size) {
  wstring result;
  const ResultCode code = NarrowToWide(text, size, &result);
  if (code == eOutOfMemory) throw std::bad_alloc();
  if (Failed(code)) throw std::bad_cast();
  return result;
}

}  // namespace

std::uint32_t EncodeUtf8(std::uint32_t codePoint, char* out) {
  const auto byte = [](std::uint32_t bits) { return static_cast<char>(static_cast<unsigned char>(bits)); };
  const auto tail = [&](unsigned shift) { return byte(0x80 | ((codePoint >> shift) & 0x3f)); };
  if (codePoint < 0x80) {
    out[0] = byte(codePoint);
    return 1;
  }
  if (codePoint < 0x800) {
    out[0] = byte(0xc0 | (codePoint >> 6));
    out[1] = tail(0);
    return 2;
  }
  if (codePoint < 0x10000) {
    out[0] = byte(0xe0 | (codePoint >> 12));
    out[1] = tail(6);
    out[2] = tail(0);
    return 3;
  }
  if (codePoint > 0x10ffff) return 0;
  out[0] = byte(0xf0 | (codePoint >> 18));
  out[1] = tail(12);
  out[2] = tail(6);
  out[3] = tail(0);
  return 4;
}

std::uint64_t Utf8Length(std::u16string_view text) {
  std::uint64_t length = 0;
  ForEachCodePoint(text, [&](std::uint32_t codePoint) {
    length += codePoint < 0x80 ? 1u : codePoint < 0x800 ? 2u : codePoint < 0x10000 ? 3u : 4u;
    return true;
  });
  return length;
}

void EncodeUtf8(std::u16string_view text, char* out) {
  ForEachCodePoint(text, [&](std::uint32_t codePoint) {
    out += EncodeUtf8(codePoint, out);
    return true;
  });
}

ResultCode WideToUtf8(std::u16string_view text, string* out) {
  if (const ResultCode code = Resize(out, Utf8Length(text)); Failed(code)) return code;
  EncodeUtf8(text, out->data);
  return sOk;
}

ResultCode WideToNarrow(std::u16string_view text, string* out) {
  char buffer[platform::characterRoom];
  std::uint64_t total = 0;
  const bool valid = ForEachCodePoint(text, [&](std::uint32_t codePoint) {
    const std::size_t length = EncodeNarrow(codePoint, buffer);
    total += length;
    return length != 0;
  });
  if (!valid) return eInvalidArgument;
  if (const ResultCode code = Resize(out, total); Failed(code)) return code;
  char* place = out->data;
  ForEachCodePoint(text, [&](std::uint32_t codePoint) {
    const std::size_t length = EncodeNarrow(codePoint, buffer);
    char_traits<char>::move(place, buffer, length);
    place += length;
    return true;
  });
  return sOk;
}

wstring NarrowToWide(const char* text) {
  return NarrowToWideOrThrow(text, text ? char_traits<char>::length(text) : 0);
}

wstring NarrowToWide(const string& text) { return NarrowToWideOrThrow(text.data, text.size); }

string HexText(const std::uint8_t* bytes, std::uint64_t count) {
  static constexpr char digits[] = "0123456789abcdef";
  string text{types::WithCapacity{2 * count}};
  for (std::uint64_t i = 0; i < count; ++i) {
    const char pair[] = {digits[bytes[i] >> 4], digits[bytes[i] & 0xf]};
    text.append(pair, 2);
  }
  return text;
}

}  // namespace zel
