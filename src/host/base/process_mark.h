// Which process an object belongs to: a child that fork made has a copy of every object, but none of the
// threads that work on it.
#pragma once

#include <cstdint>

namespace veld_report::host {

// A number that differs from that of the process that this one was forked from, and from those of its
// ancestors. Costs a load and no system call, where the kernel can wipe memory on fork (Linux 4.14).
std::uint64_t CurrentProcess() noexcept;

}  // namespace veld_report::host
