#include "host/http/retry_after.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>

namespace veld_report::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string Trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::optional<milliseconds> ParseRetryAfter(const std::string& value,
                                            std::chrono::system_clock::time_point now, milliseconds maxWait) {
  const std::string text = Trimmed(value);
  if (IsNumber(text)) {
    std::int64_t count = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), count);
    // Compared in seconds, so that no number overflows in milliseconds.
    if (parsed.ec != std::errc() || count > maxWait.count() / 1000) return maxWait;
    return seconds(count);
  }
  // curl_getdate takes a plain number of 8 digits and the like for a date. A date in HTTP has a comma or
  // blanks.
  if (text.find(' ') == std::string::npos) return std::nullopt;
  const time_t date = curl_getdate(text.c_str(), nullptr);
  if (date == -1) return std::nullopt;
  const auto wait = std::chrono::system_clock::from_time_t(date) - now;
  return std::clamp(std::chrono::ceil<milliseconds>(wait), milliseconds(0), maxWait);
}

}  // namespace veld_report::host
