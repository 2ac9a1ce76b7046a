#include "host/reporter/flusher.h"

#include <algorithm>

namespace veld_report {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds slice{50};
constexpr milliseconds firstPause{100};
constexpr milliseconds longestPause{5000};

}  // namespace

bool Flusher::Flush(const std::function<TimePoint()>& end) {
  if (!FlushToStore(end)) return false;
  milliseconds pause = firstPause;
  const std::uint64_t mark = kit_.Queues().LastToken();
  while (!IsBehind(mark)) {
    const TimePoint next = steady_clock::now() + pause;
    WaitForRun(kit_.Timer().RunsStarted(), [&] { return std::min(end(), next); });
    if (IsBehind(mark)) break;
    if (!RunCycle(end)) return IsBehind(mark);
    pause = std::min(2 * pause, longestPause);
  }
  return true;
}

bool Flusher::FlushToStore(const std::function<TimePoint()>& end) {
  if (!Drain(end)) return false;
  while (!kit_.Queues().Commit()) {
    // The disk is full or the file can't be written just now; what stands in memory isn't safe yet.
    const TimePoint next = steady_clock::now() + firstPause;
    WaitForRun(kit_.Timer().RunsStarted(), [&] { return std::min(end(), next); });
    if (steady_clock::now() >= end()) return false;
  }
  return true;
}

bool Flusher::Drain(const std::function<TimePoint()>& end) {
  const std::uint64_t generation = settingsGeneration_;
  const int cycles = appliedGeneration_ == generation ? 1 : 2;
  for (int i = 0; i < cycles; ++i) {
    if (!RunCycle(end)) return false;
  }
  appliedGeneration_ = generation;
  return true;
}

bool Flusher::RunCycle(const std::function<TimePoint()>& end) {
  const std::uint64_t before = kit_.Timer().RunsStarted();
  for (;;) {
    // Again in each round: a cycle that is just beginning disarms the timer first, and this firing with it.
    if (!kit_.Timer().IsArmed()) kit_.Nudge();
    kit_.Timer().FireNow();
    const TimePoint last = end();
    const TimePoint now = steady_clock::now();
    if (kit_.Timer().WaitForRun(before, std::min(last, now + slice))) return true;
    if (now >= last) return false;
  }
}

bool Flusher::WaitForRun(std::uint64_t startedAfter, const std::function<TimePoint()>& end) {
  for (;;) {
    const TimePoint last = end();
    const TimePoint now = steady_clock::now();
    if (kit_.Timer().WaitForRun(startedAfter, std::min(last, now + slice))) return true;
    if (now >= last) return false;
  }
}

bool Flusher::IsBehind(std::uint64_t mark) {
  for (const host::QueueInfo& queue : kit_.Queues().ListQueues()) {
    if (queue.items == 0) continue;
    const auto oldest = kit_.Queues().PeekItems(queue.name, 1);
    if (!oldest.empty() && oldest[0].token <= mark) return false;
  }
  return true;
}

}  // namespace veld_report
