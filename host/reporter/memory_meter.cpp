#include "host/reporter/memory_meter.h"

namespace veld_report {

bool MemoryMeter::HasRoom() {
  const std::lock_guard guard(lock_);
  // The timer is asked now and then only: the answer changes with each cycle, not with each record.
  constexpr std::uint64_t questionEvery = 64;
  if (submitted_ % questionEvery == 0 || submitted_ - moved_ >= limit_) Refresh();
  return submitted_ - moved_ < limit_;
}

void MemoryMeter::Add() {
  const std::lock_guard guard(lock_);
  ++submitted_;
}

std::uint64_t MemoryMeter::InMemory() {
  const std::lock_guard guard(lock_);
  Refresh();
  return submitted_ - moved_;
}

void MemoryMeter::Refresh() {
  constexpr std::chrono::steady_clock::time_point noWaiting{};
  if (mark_ != moved_ && !timer_.WaitForRun(runsAtMark_, noWaiting)) return;
  moved_ = mark_;
  mark_ = submitted_;
  runsAtMark_ = timer_.RunsStarted();
}

}  // namespace veld_report
