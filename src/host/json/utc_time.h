// Writes points in time as RFC 3339 does, in UTC: "2026-11-25T14:16:00.250Z". Part of the serialiser.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace veld_report::host {

using UtcText = std::array<char, 32>;

// `kind`: one of the points in time of veld_report/field_kinds.h; `ticks`: since 1970 in its unit. Returns
// the text, which is in `text`, with as many digits after the second as the unit has. It is empty if the year
// isn't 0 to 9999.
std::string_view WriteUtc(std::uint32_t kind, std::int64_t ticks, UtcText& text);

}  // namespace veld_report::host
