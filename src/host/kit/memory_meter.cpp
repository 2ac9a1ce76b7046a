#include "host/kit/memory_meter.h"

namespace veld_report::host {

bool MemoryMeter::HasRoom() {
  const std::lock_guard lock(mutex_);
  // The kit is only asked now and then: the answer changes with each cycle, not with each record.
  constexpr std::uint64_t questionEvery = 64;
  if (questions_++ % questionEvery == 0 || submitted_ - moved_ >= limit_) {
    Refresh();
    if (submitted_ - moved_ > limit_ / 2) kit_.BeginDrain();
  }
  return submitted_ - moved_ < limit_;
}

void MemoryMeter::Add(std::uint64_t amount) {
  const std::lock_guard lock(mutex_);
  submitted_ += amount;
}

std::uint64_t MemoryMeter::InMemory() {
  const std::lock_guard lock(mutex_);
  Refresh();
  return submitted_ - moved_;
}

void MemoryMeter::Refresh() {
  if (kit_.Drains().LastDrained() > runsAtMark_) moved_ = mark_;
  const std::uint64_t runs = kit_.DrainTimer().RunsStarted();
  if (mark_ != moved_ && runs != runsAtMark_) return;  // a cycle is about to reach the mark
  mark_ = submitted_;
  runsAtMark_ = runs;
}

}  // namespace veld_report::host
