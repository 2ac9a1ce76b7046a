// The header Retry-After (RFC 9110, 10.2.3).
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace veld_report::host {

// The wait that a value asks for: a number of seconds, or a date relative to `now`. A date in the past gives
// 0. The result is `maxWait` at most. Nothing for any other value.
std::optional<std::chrono::milliseconds> ParseRetryAfter(const std::string& value,
                                                         std::chrono::system_clock::time_point now,
                                                         std::chrono::milliseconds maxWait);

}  // namespace veld_report::host
