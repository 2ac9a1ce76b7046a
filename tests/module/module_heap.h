// Counts and fails what the module takes from the process heap, told by the address of the caller: malloc and
// operator new of this program stand in for the library's. Not under a sanitizer, which has a heap of its
// own.
#pragma once

#include <gtest/gtest.h>

#include <new>

namespace veld_report::tests {

class ModuleHeap {
 public:
  static bool Available();
  // Counts from 0 again, and the nth allocation of the library with this address in it fails; 0 for none.
  static void Begin(const void* inLibrary, int failNth);
  // Allocations since Begin.
  static int Allocations();
  // Blocks that the library has taken since Begin and nobody has freed.
  static int LiveBlocks();
  static void End();
};

// Runs `operation` with its 1st, 2nd, ... allocation failing, until one run needs no more than succeed.
// `operation` returns true for success; it may also throw std::bad_alloc. Every run with a failed allocation
// has to fail, and whatever happens no block may stay behind. Under a sanitizer nothing fails.
template <class Operation>
void SweepAllocationFailures(Operation&& operation) {
  static const char here = 0;
  for (int n = 1; n < 1000; ++n) {
    bool succeeded = false;
    ModuleHeap::Begin(&here, n);
    try {
      succeeded = operation();
    } catch (const std::bad_alloc&) {
      // The failure that was asked for.
    }
    const int left = ModuleHeap::LiveBlocks();
    ModuleHeap::End();
    ASSERT_EQ(left, 0) << "leak with allocation " << n << " failing";
    ASSERT_EQ(succeeded, ModuleHeap::Allocations() < n) << "allocation " << n;
    if (succeeded) {
      ASSERT_TRUE(n > 1 || !ModuleHeap::Available()) << "the operation allocates nothing";
      return;
    }
  }
  FAIL() << "no end";
}

}  // namespace veld_report::tests
