// Flusher: waits until what has been submitted is off this machine, or dropped by a rule.
//
// How it knows: the first cycle that begins behind the call moves everything from memory into the store, and
// the kit tells when it has, before the cycle sends anything. The youngest token of the store is then a mark,
// since tokens only rise: as soon as each queue's oldest item is younger than the mark, or there is none,
// everything before it has been acknowledged, which happens on an answer of 200, or has been dropped, which
// the ledger counts.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "host/kit/host_kit.h"

namespace veld_report {

// Threads: any. The kit must outlive it.
class Flusher {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit Flusher(host::HostKit& kit) : kit_(kit) {}

  // Returns whether it came about before `end()`, which is asked again at least 20 times a second, so that it
  // may change. Throws what the store throws.
  bool Flush(const std::function<TimePoint()>& end) {
    return FlushUnless([] { return false; }, end);
  }
  // The same, but returns early if `isPointless()`, which is asked once everything is in the store and again
  // before each further cycle.
  bool FlushUnless(const std::function<bool()>& isPointless, const std::function<TimePoint()>& end);
  // As Flush, but content when everything is in the store's file.
  bool FlushToStore(const std::function<TimePoint()>& end);
  // Moves everything from memory into the store by a cycle that begins now, without a commit, and doesn't
  // wait for what this cycle sends. False: not before `end()`.
  bool Drain(const std::function<TimePoint()>& end);

 private:
  bool RunCycle(const std::function<TimePoint()>& end);
  bool WaitForRun(std::uint64_t startedAfter, const std::function<TimePoint()>& end);
  // Calls `waitUntil` with moments soon to come until it returns true, or `end()` has passed.
  static bool InSlices(const std::function<TimePoint()>& end,
                       const std::function<bool(TimePoint)>& waitUntil);
  bool IsBehind(std::uint64_t mark);

  host::HostKit& kit_;
};

}  // namespace veld_report
