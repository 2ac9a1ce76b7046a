// Failing and counting of memory in the test program: malloc, as the code under test calls it, and operator
// new.
//
// The linker redirects malloc and free of this program (see CMakeLists.txt), so the process heap that strings
// and vectors fall back on can run dry at a chosen moment.
#pragma once

#include <cstdint>
#include <new>

#include "gtest/gtest.h"

namespace veld_report::test {

// Blocks that this program has allocated and not freed.
std::int64_t LiveBlocks();
// Allocations made so far on this thread.
std::int64_t AllocationCount();

// Lets `n` further allocations of this thread succeed and fails the one behind them, once.
void FailAllocationAfter(std::int64_t n);
// Ends that. Returns whether an allocation was failed.
bool StopFailingAllocations();

// Runs `operation` with its 1st, 2nd, ... allocation failing, until one run needs no more than succeed.
// `operation` returns true for success; it may also throw std::bad_alloc. Every run with a failed allocation
// has to fail, and whatever happens no block may stay behind.
template <class Operation>
void SweepAllocationFailures(Operation&& operation) {
  for (std::int64_t n = 0; n < 1000; ++n) {
    const std::int64_t before = LiveBlocks();
    bool succeeded = false;
    FailAllocationAfter(n);
    try {
      succeeded = operation();
    } catch (const std::bad_alloc&) {
      // The failure that was asked for.
    }
    const bool failed = StopFailingAllocations();
    ASSERT_EQ(LiveBlocks(), before) << "leak with allocation " << n << " failing";
    ASSERT_NE(succeeded, failed) << "allocation " << n;
    if (!failed) {
      ASSERT_GT(n, 0) << "the operation allocates nothing";
      return;
    }
  }
  FAIL() << "no end";
}

}  // namespace veld_report::test
