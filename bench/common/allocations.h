// Counts the allocations of this process: a program that links allocations.cpp has malloc and its kin counted
// a thread, in every library that it loads. A count costs less than a nanosecond.
#pragma once

#include <cstdint>

namespace veld_report::bench {

// Blocks that this thread has asked for since it began, operator new included.
std::uint64_t AllocationsOfThisThread();

}  // namespace veld_report::bench
