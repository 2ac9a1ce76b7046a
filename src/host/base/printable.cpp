#include "host/base/printable.h"

#include "host/base/text.h"

namespace veld_report::host {
namespace {

// Appends the first character of `text`, escaped if need be, and returns how many bytes it took.
std::size_t AppendFirst(std::string_view text, std::string* result) {
  constexpr char digits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(text[0]);
  const std::size_t length = ValidUtf8Prefix(text);
  // U+0080 to U+009f are control characters as well, and terminals may act on them.
  const bool control = byte < 0x20 || byte == 0x7f ||
                       (length == 2 && byte == 0xc2 && static_cast<unsigned char>(text[1]) < 0xa0);
  if (length != 0 && !control) {
    result->append(text.substr(0, length));
    return length;
  }
  const std::size_t taken = length == 0 ? 1 : length;
  for (std::size_t i = 0; i < taken; ++i) {
    const auto each = static_cast<unsigned char>(text[i]);
    *result += {'\\', 'x', digits[each >> 4], digits[each & 0x0f]};
  }
  return taken;
}

}  // namespace

std::string WithoutControls(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) text.remove_prefix(AppendFirst(text, &result));
  return result;
}

std::string Printable(std::string_view text, std::size_t limit) {
  std::string result = "\"";
  std::size_t i = 0;
  while (i < text.size() && i < limit) i += AppendFirst(text.substr(i), &result);
  result += '"';
  if (i < text.size()) result += "...";
  return result;
}

}  // namespace veld_report::host
