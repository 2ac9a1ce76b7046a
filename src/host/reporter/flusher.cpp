#include "host/reporter/flusher.h"

#include <algorithm>

namespace veld_report {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds slice{50};
constexpr milliseconds firstPause{100};
constexpr milliseconds maxPause{5000};

}  // namespace

bool Flusher::FlushUnless(const std::function<bool()>& isPointless, const std::function<TimePoint()>& end) {
  kit_.SkipSendInterval();
  if (!FlushToStore(end)) return false;
  const Mark mark = kit_.Queues().LastTokens();
  if (isPointless()) return HasPassed(mark);
  if (!RunCycle(end)) return HasPassed(mark);
  milliseconds pause = firstPause;
  while (!HasPassed(mark)) {
    if (isPointless()) return false;
    const TimePoint next = steady_clock::now() + pause;
    WaitForRun(kit_.Timer().RunsStarted(), [&] { return std::min(end(), next); });
    if (HasPassed(mark)) break;
    kit_.SkipSendInterval();
    if (!RunCycle(end)) return HasPassed(mark);
    pause = std::min(2 * pause, maxPause);
  }
  return true;
}

bool Flusher::FlushToStore(const std::function<TimePoint()>& end) {
  if (!Drain(end)) return false;
  while (!kit_.Queues().Commit()) {
    // The disk is full or the file can't be written now, so what is in memory isn't safe yet.
    const TimePoint next = steady_clock::now() + firstPause;
    WaitForRun(kit_.Timer().RunsStarted(), [&] { return std::min(end(), next); });
    if (steady_clock::now() >= end()) return false;
  }
  return true;
}

bool Flusher::Drain(const std::function<TimePoint()>& end) {
  const std::uint64_t before = kit_.DrainTimer().RunsStarted();
  return InSlices(end, [&](TimePoint until) {
    kit_.BeginDrain();
    return kit_.Drains().WaitForDrain(before, until);
  });
}

bool Flusher::RunCycle(const std::function<TimePoint()>& end) {
  const std::uint64_t before = kit_.Timer().RunsStarted();
  return InSlices(end, [&](TimePoint until) {
    kit_.BeginCycle();
    return kit_.Timer().WaitForRun(before, until);
  });
}

bool Flusher::WaitForCycle(const std::function<TimePoint()>& end) {
  const std::uint64_t runs = kit_.Timer().RunsStarted();
  return runs == 0 || WaitForRun(runs - 1, end);
}

bool Flusher::WaitForRun(std::uint64_t startedAfter, const std::function<TimePoint()>& end) {
  return InSlices(end, [&](TimePoint until) { return kit_.Timer().WaitForRun(startedAfter, until); });
}

bool Flusher::InSlices(const std::function<TimePoint()>& end,
                       const std::function<bool(TimePoint)>& waitUntil) {
  for (;;) {
    const TimePoint last = end();
    const TimePoint now = steady_clock::now();
    if (waitUntil(std::min(last, now + slice))) return true;
    if (now >= last) return false;
  }
}

bool Flusher::HasPassed(const Mark& mark) {
  for (const host::QueueInfo& queue : kit_.Queues().ListQueues()) {
    if (queue.items == 0) continue;
    const auto oldest = kit_.Queues().PeekItems(queue.name, 1);
    const auto last = mark.find(queue.name);
    if (!oldest.empty() && last != mark.end() && oldest[0].token <= last->second) return false;
  }
  return true;
}

}  // namespace veld_report
