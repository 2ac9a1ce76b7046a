// A long life in which each call of the host fails once, in three ways, and from there on, in two; and each
// allocation. The model judges, and afterwards a host in health delivers all that waits.
#include <gtest/gtest.h>

#include <iostream>

#include "tests/common/files.h"
#include "tests/world/heap.h"
#include "tests/world/world.h"

namespace veld_report::world {
namespace {

// Nearly all of a life is one thread, so under the thread sanitizer a sample has to do, for its time.
#if defined(__SANITIZE_THREAD__)
constexpr int stride = 4;
#else
constexpr int stride = 1;
#endif

// Returns at how many points the life met the trouble.
int Sweep(Step trouble) {
  Script life = FromText(tests::ReadFile(VELD_LONG_LIFE));
  life.push_back({.kind = Step::Kind::settle});
  life.insert(life.begin(), trouble);
  int met = 0;
  for (life[0].b = 1;; life[0].b += stride, ++met) {
    const Outcome outcome = RunScript(life);
    EXPECT_FALSE(outcome.Failed()) << outcome.failure.invariant << ", " << outcome.failure.text << "\n"
                                   << ToText(life);
    if (outcome.troubles == 0 || testing::Test::HasFailure()) return met;
  }
}

TEST(SweepTest, EachCallOfTheHostFails) {
  for (const int result : {-2147483579, 1, throws}) {
    for (const int onwards : {0, 1}) {
      if (onwards && result == 1) continue;
      const int met = Sweep({.kind = Step::Kind::fault, .op = anyOp, .a = onwards, .c = result});
      std::cout << "result " << result << (onwards ? " and from there on" : "") << ": " << met << " calls\n";
      EXPECT_GT(met, 100 / stride);
    }
  }
}

TEST(SweepTest, EachAllocationFails) {
  for (const bool ofHeap : {false, true}) {
    if (ofHeap && !ModuleIsLinked()) continue;
    const int met = Sweep({.kind = Step::Kind::memory, .a = ofHeap});
    std::cout << (ofHeap ? "heap: " : "host's allocator: ") << met << " allocations\n";
    EXPECT_GT(met, 10 / stride);
  }
}

}  // namespace
}  // namespace veld_report::world
