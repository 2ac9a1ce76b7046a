// What somebody may have meant who wrote a name that doesn't exist.
#pragma once

#include <string>
#include <vector>

namespace veld_report::app {

// "; did you mean send?" if one of the names is near enough, otherwise nothing.
std::string Suggestion(const std::string& given, const std::vector<std::string>& names);

}  // namespace veld_report::app
