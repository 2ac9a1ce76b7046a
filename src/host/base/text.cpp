#include "host/base/text.h"

#include <cstdint>
#include <stdexcept>

#include "types/text_conversion.h"

namespace veld_report::host {
namespace {

std::uint32_t Byte(char character) { return static_cast<unsigned char>(character); }

struct LeadByte {
  std::size_t length;  // 0 for a byte that can't start a sequence
  std::uint32_t bits;
  std::uint32_t minimum;  // a smaller value is an overlong form
};

LeadByte Classify(std::uint32_t byte) {
  if (byte < 0x80) return {1, byte, 0};
  if (byte >= 0xc2 && byte <= 0xdf) return {2, byte & 0x1f, 0x80};
  if (byte >= 0xe0 && byte <= 0xef) return {3, byte & 0x0f, 0x800};
  if (byte >= 0xf0 && byte <= 0xf4) return {4, byte & 0x07, 0x10000};
  return {0, 0, 0};
}

// Decodes the sequence at the front of `text`. Returns its length, or 0 if it is invalid.
std::size_t Decode(std::string_view text, std::uint32_t* codePoint) {
  if (text.empty()) return 0;
  const LeadByte lead = Classify(Byte(text[0]));
  if (lead.length == 0 || lead.length > text.size()) return 0;
  std::uint32_t value = lead.bits;
  for (std::size_t i = 1; i < lead.length; ++i) {
    if ((Byte(text[i]) & 0xc0) != 0x80) return 0;
    value = (value << 6) | (Byte(text[i]) & 0x3f);
  }
  const bool surrogate = value >= 0xd800 && value <= 0xdfff;
  if (value < lead.minimum || value > 0x10ffff || surrogate) return 0;
  *codePoint = value;
  return lead.length;
}

}  // namespace

std::string ToUtf8(std::u16string_view text) {
  std::string result(zel::Utf8Length(text), '\0');
  zel::EncodeUtf8(text, result.data());
  return result;
}

zel::wstring ToWide(std::string_view utf8) {
  zel::wstring result(zel::types::WithCapacity{utf8.size()});
  for (std::size_t i = 0; i < utf8.size();) {
    std::uint32_t codePoint = 0;
    const std::size_t length = Decode(utf8.substr(i), &codePoint);
    if (length == 0) throw std::invalid_argument("not valid UTF-8 at byte " + std::to_string(i));
    const std::uint32_t above = codePoint - 0x10000;
    const char16_t units[] = {static_cast<char16_t>(codePoint < 0x10000 ? codePoint : 0xd800 + (above >> 10)),
                              static_cast<char16_t>(0xdc00 + (above & 0x3ff))};
    result.append(units, codePoint < 0x10000 ? 1 : 2);
    i += length;
  }
  return result;
}

std::size_t ValidUtf8Prefix(std::string_view text) {
  std::uint32_t codePoint = 0;
  return Decode(text, &codePoint);
}

}  // namespace veld_report::host
