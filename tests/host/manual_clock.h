// A clock that stands still until a test advances it.
#pragma once

#include <atomic>
#include <vector>

#include "host/base/clock.h"

namespace veld_report::tests {

class ManualClock final : public host::Clock {
 public:
  TimePoint Now() const override { return TimePoint(std::chrono::nanoseconds(1) * elapsedNs_.load()); }
  // The calendar began at 2026-01-01T00:00:00Z.
  WallTimePoint WallNow() const override {
    return WallTimePoint(std::chrono::seconds(1767225600) +
                         std::chrono::duration_cast<WallTimePoint::duration>(Now().time_since_epoch()));
  }
  void WaitUntil(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
                 TimePoint) const override {
    changed.wait(lock);
  }
  void AddListener(host::IClockListener* listener) override {
    const std::lock_guard lock(mutex_);
    listeners_.push_back(listener);
  }
  void RemoveListener(host::IClockListener* listener) override {
    const std::lock_guard lock(mutex_);
    std::erase(listeners_, listener);
  }

  void Advance(std::chrono::nanoseconds by) {
    elapsedNs_ += by.count();
    const std::lock_guard lock(mutex_);
    for (host::IClockListener* listener : listeners_) listener->OnClockAdvanced();
  }

 private:
  std::atomic<std::int64_t> elapsedNs_ = 0;
  std::mutex mutex_;
  std::vector<host::IClockListener*> listeners_;
};

}  // namespace veld_report::tests
