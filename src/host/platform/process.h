// Which process this is, and which one an object belongs to: a forked child has a copy of every object, but
// none of the threads that work on it.
#pragma once

#include <cstdint>

namespace veld_report::host {

// A number that differs from that of the parent process and of all ancestors. Costs a load and no system call
// if the kernel can wipe memory on fork (Linux 4.14), or if processes don't fork.
std::uint64_t CurrentProcess() noexcept;

// The system's number of this process.
std::uint64_t ProcessId() noexcept;

}  // namespace veld_report::host
