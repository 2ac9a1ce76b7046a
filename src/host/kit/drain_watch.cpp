#include "host/kit/drain_watch.h"

#include <utility>

namespace veld_report::host {

DrainWatch::DrainWatch(zel::Ref<orvel::IExecutionModeProvider> mode, zel::Ref<TimerService> timer)
    : mode_(std::move(mode)), timer_(std::move(timer)) {}

std::uint32_t DrainWatch::IsBackgroundDisabled() {
  // First of all: a thread that waits for the drain may change the mode back as soon as it is noted.
  const std::uint32_t disabled = mode_->IsBackgroundDisabled();
  const std::uint64_t run = timer_->RunsStarted();  // the Run that asks; there is only one at a time
  const std::lock_guard lock(mutex_);
  if (run > lastDrained_) {
    lastDrained_ = run;
    drained_.notify_all();
  }
  return disabled;
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
