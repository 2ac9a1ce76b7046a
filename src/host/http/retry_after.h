// The header Retry-After (RFC 9110, 10.2.3).
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace veld_report::host {

// The wait that a value asks for: a number of seconds, or a date, seen from `now`. A date that has passed
// gives 0. The result is at most `longest`. Nothing for a value that is neither.
std::optional<std::chrono::milliseconds> ParseRetryAfter(const std::string& value,
                                                         std::chrono::system_clock::time_point now,
                                                         std::chrono::milliseconds longest);

}  // namespace veld_report::host
