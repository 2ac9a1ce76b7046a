// Writes a finished line to a tracer: for the kit's own services, whose lines are rare.
#pragma once

#include <cstdint>
#include <string_view>

#include "contract/tracer.h"

namespace veld_report::host {

inline constexpr std::uint32_t failureLevel = 300;
inline constexpr std::uint32_t detailLevel = 700;

// `tracer` may be null. Never throws: a line that can't be written is lost.
void TraceLine(zel::ITracer* tracer, std::uint32_t level, std::string_view line) noexcept;

}  // namespace veld_report::host
