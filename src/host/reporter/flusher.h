// Flusher waits until everything that was submitted has been delivered, or dropped by a rule.
//
// How it knows: the kit moves everything from memory into the store, and reports that. The last token of
// each queue is then its mark, since its tokens only ascend. Once the oldest item of every queue is younger
// than its mark, everything before it is gone: acknowledged after an answer of 200, or dropped and counted in
// the ledger.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "host/kit/host_kit.h"

namespace veld_report {

// Threads: any. The kit must outlive it.
class Flusher {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  explicit Flusher(host::HostKit& kit) : kit_(kit) {}

  // Returns true if that was done before `end()`, which is called at least 20 times a second and may change.
  // Throws what the store throws.
  bool Flush(const std::function<TimePoint()>& end) {
    return FlushUnless([] { return false; }, end);
  }
  // The same, but returns early if `isPointless()`, which is called once everything is in the store and again
  // before each further cycle.
  bool FlushUnless(const std::function<bool()>& isPointless, const std::function<TimePoint()>& end);
  // Like Flush, but only waits until everything is in the store's file.
  bool FlushToStore(const std::function<TimePoint()>& end);
  // Waits until no cycle runs that began before. False if that wasn't so before `end()`.
  bool WaitForCycle(const std::function<TimePoint()>& end);
  // Moves everything from memory into the store, without a commit. Waits for no server. False if that wasn't
  // done before `end()`.
  bool Drain(const std::function<TimePoint()>& end);

 private:
  // The last token of each queue.
  using Mark = std::map<std::string, std::uint64_t>;

  bool RunCycle(const std::function<TimePoint()>& end);
  bool WaitForRun(std::uint64_t startedAfter, const std::function<TimePoint()>& end);
  // Calls `waitUntil` with near deadlines until it returns true or `end()` has passed.
  static bool InSlices(const std::function<TimePoint()>& end,
                       const std::function<bool(TimePoint)>& waitUntil);
  bool HasPassed(const Mark& mark);

  host::HostKit& kit_;
};

}  // namespace veld_report
