#include "apps/veldrep/text.h"

#include <cstdio>

#include "host/base/text.h"

namespace veld_report::app {

std::string JsonString(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  std::string result = "\"";
  while (!text.empty()) {
    const std::size_t length = host::ValidUtf8Prefix(text);
    const auto byte = static_cast<unsigned char>(text[0]);
    if (length == 0) {
      result += "\xef\xbf\xbd";
    } else if (byte < 0x20) {
      result += {'\\', 'u', '0', '0', digits[byte >> 4], digits[byte & 0x0f]};
    } else {
      if (byte == '"' || byte == '\\') result += '\\';
      result.append(text.substr(0, length));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return result + '"';
}

std::string Duration(std::int64_t milliseconds) {
  char text[64];
  const auto seconds = static_cast<long long>(milliseconds / 1000);
  if (milliseconds < 1000) {
    std::snprintf(text, sizeof(text), "%lld ms", static_cast<long long>(milliseconds));
  } else if (seconds < 60) {
    std::snprintf(text, sizeof(text), "%.1f s", static_cast<double>(milliseconds) / 1000);
  } else if (seconds < 3600) {
    std::snprintf(text, sizeof(text), "%lld min %lld s", seconds / 60, seconds % 60);
  } else if (seconds < 86400) {
    std::snprintf(text, sizeof(text), "%lld h %lld min", seconds / 3600, seconds % 3600 / 60);
  } else {
    std::snprintf(text, sizeof(text), "%lld d %lld h", seconds / 86400, seconds % 86400 / 3600);
  }
  return text;
}

}  // namespace veld_report::app
