// Clock: the source of time for the host kit's services.
//
// It differs from std::chrono::steady_clock in that a test can substitute a clock that only moves when it is
// advanced. Not for deadlines that a caller sets: those are real time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace veld_report::host {

// Notified when a clock that doesn't run by itself has been advanced.
class IClockListener {
 public:
  // Called on the thread that advanced the clock, with a lock of the clock held.
  virtual void OnClockAdvanced() = 0;

 protected:
  ~IClockListener() = default;
};

// Threads: any, for all operations.
class Clock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  using WallTimePoint = std::chrono::system_clock::time_point;

  virtual ~Clock() = default;
  // Monotonic time. For delays.
  virtual TimePoint Now() const = 0;
  // Wall-clock time, which may jump. For dates that come from outside.
  virtual WallTimePoint WallNow() const = 0;
  // Waits on `changed` like std::condition_variable::wait_until. May return early.
  virtual void WaitUntil(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
                         TimePoint deadline) const = 0;
  // From AddListener to RemoveListener the listener is notified of each advance. Don't call them with a lock
  // held that OnClockAdvanced takes.
  virtual void AddListener(IClockListener*) {}
  virtual void RemoveListener(IClockListener*) {}
};

// The system's clocks.
class SystemClock final : public Clock {
 public:
  TimePoint Now() const override { return std::chrono::steady_clock::now(); }
  WallTimePoint WallNow() const override { return std::chrono::system_clock::now(); }
  void WaitUntil(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
                 TimePoint deadline) const override {
    changed.wait_until(lock, deadline);
  }
};

}  // namespace veld_report::host
