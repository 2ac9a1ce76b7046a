// Removes credentials from text that is about to be written.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::host {

// Removes user and password from every url in the text: "http://me:pw@host/x" becomes "http://host/x". A
// url's query stays.
std::string WithoutCredentials(std::string_view text);

}  // namespace veld_report::host
