#include "host/base/redact.h"

namespace veld_report::host {

std::string WithoutCredentials(std::string_view text) {
  constexpr std::string_view mark = "://";
  std::string result;
  result.reserve(text.size());
  for (;;) {
    const std::size_t scheme = text.find(mark);
    if (scheme == std::string_view::npos) break;
    const std::size_t authority = scheme + mark.size();
    result.append(text.substr(0, authority));
    text.remove_prefix(authority);
    // The last @ of the authority counts: a careless password may contain one itself.
    const std::size_t at = text.substr(0, text.find_first_of("/?#\\ \t\r\n\"'<>")).rfind('@');
    if (at != std::string_view::npos) text.remove_prefix(at + 1);
  }
  result.append(text);
  return result;
}

}  // namespace veld_report::host
