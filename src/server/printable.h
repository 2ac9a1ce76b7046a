// Bytes of a stranger made fit for a sentence, a terminal and a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace veld_report::server {

// The text with control characters and bytes that aren't valid UTF-8 as \xNN; all else as it stands.
std::string WithoutControls(std::string_view text);

// The same in quotes and, when it is longer than `limit` bytes, cut and followed by "...".
std::string Printable(std::string_view text, std::size_t limit = 64);

}  // namespace veld_report::server
