// Single JSON tokens as text, for building small texts by hand.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::host {

// In the same form as JsonTextWriter's. They throw std::bad_alloc.
std::string JsonToken(std::string_view utf8);
std::string JsonToken(double value);

}  // namespace veld_report::host
