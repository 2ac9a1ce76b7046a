// Counts the allocations of this process. In a program that links allocations.cpp, malloc and its relatives
// are counted by thread, in every library that the program loads. Counting takes less than a nanosecond.
#pragma once

#include <cstdint>

namespace veld_report::bench {

// Blocks that this thread has allocated so far, operator new included.
std::uint64_t AllocationsOfThisThread();

}  // namespace veld_report::bench
