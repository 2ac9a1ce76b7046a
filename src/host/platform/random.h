// Random numbers from the system.
#pragma once

#include <cstddef>
#include <span>

namespace veld_report::host {

// Fills at most 256 bytes. Throws std::system_error if the system has none. Threads: any.
void FillWithRandom(std::span<std::byte> bytes);

}  // namespace veld_report::host
