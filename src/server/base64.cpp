#include "server/base64.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "host/base/printable.h"

namespace veld_report::server {
namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t noValue = 0xff;

constexpr std::array<std::uint8_t, 256> MakeValues() {
  std::array<std::uint8_t, 256> values{};
  values.fill(noValue);
  for (std::size_t i = 0; i < alphabet.size(); ++i) {
    values[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return values;
}
constexpr std::array<std::uint8_t, 256> values = MakeValues();

std::size_t PaddingOf(std::string_view text) {
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  return padding;
}

std::string BadCharacter(std::string_view text, std::size_t position) {
  return "has " + host::Printable(text.substr(position, 1)) + " at character " +
         std::to_string(position + 1) + ", which isn't in the standard alphabet";
}

}  // namespace

std::string DecodeBase64(std::string_view text, std::string* bytes) {
  bytes->clear();
  const std::size_t padding = PaddingOf(text);
  const std::size_t characters = text.size() - padding;
  std::string result(text.size() / 4 * 3 + 3, '\0');
  char* out = result.data();
  std::size_t i = 0;
  // Whole groups, as long as they are valid; what is wrong with a character is for the loop below.
  for (; i + 4 <= characters; i += 4) {
    const auto value = [&](std::size_t place) {
      return std::uint32_t{values[static_cast<unsigned char>(text[i + place])]};
    };
    const std::uint32_t a = value(0), b = value(1), c = value(2), d = value(3);
    if ((a | b | c | d) > 63) break;
    const std::uint32_t group = a << 18 | b << 12 | c << 6 | d;
    *out++ = static_cast<char>(group >> 16 & 0xff);
    *out++ = static_cast<char>(group >> 8 & 0xff);
    *out++ = static_cast<char>(group & 0xff);
  }
  std::uint32_t window = 0;
  unsigned bits = 0;
  for (; i < characters; ++i) {
    const std::uint8_t value = values[static_cast<unsigned char>(text[i])];
    if (value == noValue) return BadCharacter(text, i);
    window = (window << 6) | value;
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    *out++ = static_cast<char>(static_cast<std::uint8_t>(window >> bits));
    window &= (1U << bits) - 1;
  }
  if (text.size() % 4 != 0) {
    return "has " + std::to_string(text.size()) +
           " characters, which isn't a multiple of 4: it is truncated or not padded";
  }
  // The leftover bits of the last group must be zero, or two texts would stand for the same bytes.
  if (window != 0) return "ends in bits that encode no byte, at character " + std::to_string(characters);
  result.resize(static_cast<std::size_t>(out - result.data()));
  *bytes = std::move(result);
  return {};
}

}  // namespace veld_report::server
