// SweepAllocations, the one driver of all sweeps over failing allocations: it runs an operation in a fresh
// world with its 1st, 2nd, ... allocation failing, until a run needs fewer.
#pragma once

#include <gtest/gtest.h>

#include <new>
#include <ostream>
#include <string>

#include "tests/fakes/fake_memory.h"
#include "tests/support/module_heap.h"

namespace veld_report::tests {

// Whose allocations fail, and how many.
struct OutOfMemoryMode {
  const char* name;
  bool ofHeap;   // of the process heap; else of the host's allocator
  bool onwards;  // the nth and all behind it; else the nth alone
  friend std::ostream& operator<<(std::ostream& stream, const OutOfMemoryMode& mode) {
    return stream << mode.name;
  }
};
inline constexpr OutOfMemoryMode outOfMemoryModes[] = {{"OfAllocator", false, false},
                                                       {"OfAllocatorOnwards", false, true},
                                                       {"OfHeap", true, false},
                                                       {"OfHeapOnwards", true, true}};

// Which allocation fails in one run, and whether it has. The world of that run asks it.
class FailingAllocation {
 public:
  FailingAllocation(const OutOfMemoryMode& mode, int nth) : mode_(mode), nth_(nth) {}
  void Start(fakes::FakeAllocator& allocator) {
    before_ = allocator.Allocations();
    if (mode_.ofHeap) {
      ModuleHeap::FailNth(nth_, mode_.onwards);
    } else {
      allocator.FailNth(nth_, mode_.onwards);
    }
  }
  // Ends it. Returns whether an allocation has failed.
  bool Stop(fakes::FakeAllocator& allocator) {
    const bool failed = Failed(allocator);
    ModuleHeap::StopFailing();
    allocator.FailNth(0);
    return failed;
  }
  bool Failed(fakes::FakeAllocator& allocator) const {
    return (mode_.ofHeap ? ModuleHeap::Allocations() : allocator.Allocations() - before_) >= nth_;
  }

 private:
  const OutOfMemoryMode mode_;
  const int nth_;
  int before_ = 0;
};

// `runOne(failing)` makes a world, runs the operation between Start and Stop, checks what is to be checked,
// ends the world, and returns whether an allocation has failed. No block of the library with the address
// `inLibrary` in it may be left. Returns the number of allocations that were failed, one after the other.
template <class RunOne>
int SweepAllocations(const OutOfMemoryMode& mode, const void* inLibrary, RunOne&& runOne) {
  for (int nth = 1; nth < 5000; ++nth) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, "allocation " + std::to_string(nth));
    FailingAllocation failing(mode, nth);
    if (mode.ofHeap) ModuleHeap::Watch(inLibrary);
    const bool failed = runOne(failing);
    const int left = mode.ofHeap ? ModuleHeap::LiveBlocks() : 0;
    ModuleHeap::End();
    EXPECT_EQ(left, 0) << "a leak";
    if (!failed || testing::Test::HasFailure()) return nth - 1;
  }
  ADD_FAILURE() << "no end";
  return 0;
}

}  // namespace veld_report::tests
