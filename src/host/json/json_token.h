// Single JSON tokens as text, for those who put a small text together by hand.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::host {

// As JsonTextWriter writes them. Throw std::bad_alloc.
std::string JsonToken(std::string_view utf8);
std::string JsonToken(double value);

}  // namespace veld_report::host
