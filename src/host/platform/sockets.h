// The sockets of the host kit's connections.
#pragma once

#include <cstdint>

namespace veld_report::host {

// Prepares a new socket: a program that the application starts doesn't inherit it, and of what is sent at
// most 64 KiB wait unsent in the system, where that can be set, since that would look like progress.
void PrepareSocket(std::intptr_t socket) noexcept;

}  // namespace veld_report::host
