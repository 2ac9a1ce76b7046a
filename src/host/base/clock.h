// Clock, the time that the host kit's services go by.
//
// It differs from std::chrono::steady_clock in that a test can put a clock in its place that stands still
// until it is advanced. Not for deadlines that a person gave: those are real time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace veld_report::host {

// Told when a clock that doesn't run by itself has moved.
class IClockListener {
 public:
  // On the thread that advanced the clock, with a lock of the clock's held.
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
  // Never runs backwards. For delays.
  virtual TimePoint Now() const = 0;
  // The calendar's time, which may jump. For dates that come from outside.
  virtual WallTimePoint WallNow() const = 0;
  // Waits on `changed` as std::condition_variable::wait_until does; may return early.
  virtual void WaitUntil(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
                         TimePoint deadline) const = 0;
  // Between the two calls the listener hears of each advance. Called without the lock that the listener
  // takes when it is told.
  virtual void AddListener(IClockListener*) {}
  virtual void RemoveListener(IClockListener*) {}
};

// The machine's clocks.
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
