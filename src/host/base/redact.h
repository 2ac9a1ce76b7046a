// Takes what must not be written out of text that is about to be written.
#pragma once

#include <string>
#include <string_view>

namespace veld_report::host {

// The text with user and password taken out of every url in it: "http://me:pw@host/x" gives "http://host/x".
// A url's query stays.
std::string WithoutCredentials(std::string_view text);

}  // namespace veld_report::host
