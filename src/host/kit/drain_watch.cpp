#include "host/kit/drain_watch.h"

#include <utility>

namespace veld_report::host {

DrainWatch::DrainWatch(zel::Ref<TimerService> timer, std::function<void()> onDrained)
    : timer_(std::move(timer)), onDrained_(std::move(onDrained)) {}

std::uint32_t DrainWatch::IsBackgroundDisabled() {
  if (HasDrainedInThisRun()) return 0;
  try {
    onDrained_();
  } catch (...) {
    // What was drained waits for the next drain or the next retry.
  }
  const std::lock_guard lock(mutex_);
  lastDrained_ = timer_->RunsStarted();  // the Run that asks; there is only one at a time
  drained_.notify_all();
  return 0;
}

std::uint64_t DrainWatch::LastDrained() const {
  const std::lock_guard lock(mutex_);
  return lastDrained_;
}

bool DrainWatch::WaitForDrain(std::uint64_t startedAfter,
                              std::chrono::steady_clock::time_point deadline) const {
  std::unique_lock lock(mutex_);
  return drained_.wait_until(lock, deadline, [&] { return lastDrained_ > startedAfter; });
}

}  // namespace veld_report::host
