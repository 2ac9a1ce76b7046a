// Writes a complete line to a tracer. For the kit's own services, which rarely trace.
#pragma once

#include <cstdint>
#include <string_view>

#include "contract/tracer.h"

namespace veld_report::host {

inline constexpr std::uint32_t failureLevel = 300;

// `tracer` may be null. Never throws: a line that can't be written is lost.
void WriteTrace(zel::ITracer* tracer, std::uint32_t level, std::string_view line) noexcept;

}  // namespace veld_report::host
