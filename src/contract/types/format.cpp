#include "types/format.h"

#include <cwchar>

namespace zel {
namespace {

std::uint64_t Padding(const FormatSpec& format, std::uint64_t used) {
  const std::uint64_t width = format.width > 0 ? static_cast<std::uint64_t>(format.width) : 0;
  return used < width ? width - used : 0;
}

// The length of a NUL-terminated text, reading no more than `maxBytes` bytes unless that is negative.
std::uint64_t BoundedLength(const char* text, std::int32_t maxBytes) {
  std::uint64_t length = 0;
  while ((maxBytes < 0 || length < static_cast<std::uint64_t>(maxBytes)) && text[length] != '\0') ++length;
  return length;
}

}  // namespace

std::uint64_t AppendFill(wstring* out, std::uint64_t count, std::uint32_t fill) {
  if (fill >= 0x10000 || count == 0) return 0;
  out->reserve_extra(count);
  char_traits<char16_t>::fill(out->data + out->size, count, static_cast<char16_t>(fill));
  out->size += count;
  out->data[out->size] = u'\0';
  return count;
}

std::uint64_t AppendAligned(wstring* out, const FormatSpec& format, std::u16string_view text,
                            std::u16string_view prefix) {
  const std::uint64_t padding = Padding(format, text.size() + prefix.size());
  std::uint64_t written = prefix.size() + text.size();
  if (format.alignment > 0) written += AppendFill(out, padding, format.fill);
  out->append(prefix);
  if (format.alignment == 0) written += AppendFill(out, padding, format.fill);
  out->append(text);
  if (format.alignment < 0) written += AppendFill(out, padding, format.fill);
  return written;
}

std::uint64_t AppendNarrowAligned(wstring* out, const FormatSpec& format, const char* text) {
  const std::uint64_t length = BoundedLength(text, format.precision);
  const std::uint64_t padding = Padding(format, length);
  std::uint64_t written = 0;
  // Without a prefix, an alignment of 0 pads before the text too.
  if (format.alignment >= 0) written += AppendFill(out, padding, format.fill);
  for (std::uint64_t i = 0; i < length; ++i) {
    std::mbstate_t state{};
    wchar_t character = 0;
    if (std::mbrtowc(&character, text + i, 1, &state) != 1) break;
    const char16_t unit = static_cast<char16_t>(character);
    out->append(&unit, 1);
    ++written;
  }
  if (format.alignment < 0) written += AppendFill(out, padding, format.fill);
  return written;
}

std::uint64_t AppendNumber(wstring* out, const FormatSpec& format, std::uint32_t value) {
  static constexpr char16_t digits[] = u"0123456789abcdefghijklmnopqrstuvwxyz";
  const std::uint32_t radix = static_cast<std::uint32_t>(format.radix);
  char16_t buffer[32];
  char16_t* const bufferEnd = buffer + 32;
  char16_t* place = bufferEnd;
  do {
    *--place = digits[value % radix];
    value /= radix;
  } while (value != 0);
  std::u16string_view prefix;
  if (format.showBase && format.radix == 16) prefix = u"0x";
  if (format.showBase && format.radix == 8) prefix = u"0";
  return AppendAligned(out, format, {place, static_cast<std::size_t>(bufferEnd - place)}, prefix);
}

}  // namespace zel
