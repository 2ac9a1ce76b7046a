// Makes untrusted bytes safe for a sentence, a terminal and a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace veld_report::host {

// Control characters and bytes that aren't valid UTF-8 become \xNN; the rest stays as it is.
std::string WithoutControls(std::string_view text);

// The same in quotes. If it is longer than `limit` bytes, it is cut and followed by "...".
std::string Printable(std::string_view text, std::size_t limit = 64);

}  // namespace veld_report::host
