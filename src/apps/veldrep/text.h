// Text for users and scripts.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veld_report::app {

// A JSON string, quotes included. Bytes that aren't valid UTF-8 become U+FFFD.
std::string JsonString(std::string_view text);
// "740 ms", "12.3 s", "4 min 5 s", "3 h 20 min", "2 d 4 h".
std::string Duration(std::int64_t milliseconds);

}  // namespace veld_report::app
