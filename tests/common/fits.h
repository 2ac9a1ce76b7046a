// Matches a whole text by a regular expression; googlemock's own know almost nothing on Windows.
#pragma once

#include <gmock/gmock.h>

#include <regex>

namespace veld_report::tests {

MATCHER_P(Fits, pattern, "") { return std::regex_match(arg, std::regex(pattern)); }

}  // namespace veld_report::tests
