#include "host/json/json_text_writer.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>
#include <utility>

#include "host/base/text.h"
#include "types/text_conversion.h"

namespace veld_report::host {
namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";  // U+FFFD

bool IsPlain(unsigned char byte) { return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\'; }

constexpr std::uint64_t Everywhere(unsigned char byte) { return 0x0101010101010101U * byte; }

// Sets the top bit of the first byte that isn't plain. No bit below it is set; bits above it may be set
// falsely. The arithmetic is that of searching a word for a zero byte.
std::uint64_t MarkUnplain(std::uint64_t word) {
  const auto below = [word](unsigned char byte) { return word - Everywhere(byte); };
  const auto equal = [word](unsigned char byte) { return (word ^ Everywhere(byte)) - Everywhere(1); };
  return (word | ((below(0x20) | equal('"') | equal('\\')) & ~word)) & Everywhere(0x80);
}

// The number of plain bytes at the front.
std::size_t PlainPrefix(std::string_view text) {
  std::size_t length = 0;
  if constexpr (std::endian::native == std::endian::little) {
    for (; length + sizeof(std::uint64_t) <= text.size(); length += sizeof(std::uint64_t)) {
      std::uint64_t word = 0;
      std::memcpy(&word, text.data() + length, sizeof word);
      const std::uint64_t marks = MarkUnplain(word);
      if (marks != 0) return length + static_cast<std::size_t>(std::countr_zero(marks)) / 8;
    }
  }
  while (length < text.size() && IsPlain(static_cast<unsigned char>(text[length]))) ++length;
  return length;
}

// The second byte of a sequence is 0x80-0xbf, except after four lead bytes.
bool MayFollow(unsigned char lead, unsigned char second) {
  const unsigned char low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const unsigned char high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  return second >= low && second <= high;
}

// `text` starts with an invalid sequence. Returns that sequence's length.
std::size_t BadSequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0xc2 || lead > 0xf4 || text.size() < 2 || !MayFollow(lead, byte(1))) return 1;
  const std::size_t wanted = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  std::size_t length = 2;
  while (length < wanted && length < text.size() && (byte(length) & 0xc0) == 0x80) ++length;
  return length;
}

bool IsHighSurrogate(char16_t unit) { return unit >= 0xd800 && unit <= 0xdbff; }
bool IsLowSurrogate(char16_t unit) { return unit >= 0xdc00 && unit <= 0xdfff; }

}  // namespace

JsonTextWriter::JsonTextWriter(zel::Ref<zel::IIO> stream) : stream_(std::move(stream)) {}

void JsonTextWriter::Fail(zel::ResultCode code) {
  if (!zel::Failed(failure_)) failure_ = code;
}

void JsonTextWriter::WriteThrough(std::string_view text) {
  while (!text.empty() && !zel::Failed(failure_)) {
    constexpr std::size_t maxBytes = 1U << 30;  // the stream counts in 32 bits
    const auto count = static_cast<std::uint32_t>(std::min(text.size(), maxBytes));
    std::uint32_t written = 0;
    const zel::ResultCode code = stream_->Write(text.data(), count, &written);
    if (zel::Failed(code)) {
      Fail(code);
    } else if (written != count) {
      Fail(zel::eOutOfSpace);
    }
    passedOn_ += count;
    text.remove_prefix(count);
  }
}

void JsonTextWriter::RawPastBuffer(std::string_view text) {
  WriteThrough({buffer_.data(), std::exchange(used_, 0)});
  if (zel::Failed(failure_)) return;
  if (text.size() >= buffer_.size()) {
    WriteThrough(text);
    return;
  }
  std::copy(text.begin(), text.end(), buffer_.begin());
  used_ = text.size();
}

void JsonTextWriter::Escaped(unsigned char byte) {
  constexpr std::string_view digits = "0123456789abcdef";
  constexpr std::string_view shortCodes = "\"\\\b\f\n\r\t";
  constexpr std::string_view shortNames = "\"\\bfnrt";
  const std::size_t found = shortCodes.find(static_cast<char>(byte));
  if (found != std::string_view::npos) {
    const char text[] = {'\\', shortNames[found]};
    Raw({text, sizeof text});
  } else {
    const char text[] = {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 15]};
    Raw({text, sizeof text});
  }
}

void JsonTextWriter::String(std::string_view utf8) {
  Raw('"');
  while (!utf8.empty()) {
    std::size_t run = PlainPrefix(utf8);  // bytes that can be written unchanged
    while (run < utf8.size() && (utf8[run] & '\x80') != 0) {
      const std::size_t sequence = ValidUtf8Prefix(utf8.substr(run));
      if (sequence == 0) break;
      run += sequence;
      run += PlainPrefix(utf8.substr(run));
    }
    Raw(utf8.substr(0, run));
    utf8.remove_prefix(run);
    if (utf8.empty()) break;
    const auto byte = static_cast<unsigned char>(utf8[0]);
    if (byte < 0x80) {
      Escaped(byte);
      utf8.remove_prefix(1);
    } else {
      Raw(replacement);
      utf8.remove_prefix(BadSequenceLength(utf8));
    }
  }
  Raw('"');
}

void JsonTextWriter::String(std::u16string_view utf16) {
  Raw('"');
  for (std::size_t i = 0; i < utf16.size(); ++i) {
    const char16_t unit = utf16[i];
    if (unit < 0x80) {
      const auto byte = static_cast<unsigned char>(unit);
      if (IsPlain(byte)) {
        Raw(static_cast<char>(byte));
      } else {
        Escaped(byte);
      }
      continue;
    }
    const bool pair = IsHighSurrogate(unit) && i + 1 < utf16.size() && IsLowSurrogate(utf16[i + 1]);
    if (!pair && (IsHighSurrogate(unit) || IsLowSurrogate(unit))) {
      Raw(replacement);
      continue;
    }
    std::array<char, 4> bytes{};
    zel::EncodeUtf8(utf16.substr(i, pair ? 2 : 1), bytes.data());
    Raw({bytes.data(), pair ? std::size_t{4} : unit < 0x800 ? std::size_t{2} : std::size_t{3}});
    if (pair) ++i;
  }
  Raw('"');
}

namespace {

struct NumberText {
  std::array<char, 32> text;
  std::size_t length;
  operator std::string_view() const { return {text.data(), length}; }
};

template <class Number, class... Form>
NumberText Format(Number value, Form... form) {
  NumberText result{};
  char* const begin = result.text.data();
  result.length =
      static_cast<std::size_t>(std::to_chars(begin, begin + result.text.size(), value, form...).ptr - begin);
  return result;
}

// From 2^53 on the exponent is always written: readers take digits alone for an integer, and fail if it is
// too long for theirs.
template <class Number>
NumberText FloatingText(Number value) {
  constexpr Number exactIntegers = Number{9007199254740992};
  if (!std::isfinite(value)) return {{'n', 'u', 'l', 'l'}, 4};
  if (std::abs(value) >= exactIntegers) return Format(value, std::chars_format::scientific);
  return Format(value);
}

}  // namespace

void JsonTextWriter::Signed(std::int64_t value) { Raw(std::string_view(Format(value))); }
void JsonTextWriter::Unsigned(std::uint64_t value) { Raw(std::string_view(Format(value))); }
void JsonTextWriter::Floating(double value) { Raw(std::string_view(FloatingText(value))); }
void JsonTextWriter::Floating(float value) { Raw(std::string_view(FloatingText(value))); }

zel::ResultCode JsonTextWriter::Flush() {
  WriteThrough({buffer_.data(), std::exchange(used_, 0)});
  return failure_;
}

}  // namespace veld_report::host
