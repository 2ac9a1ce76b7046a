// TimerQueue: the pending calls of a timer service and the loop that makes them.
//
// It is separate from the service so that it can outlive it. The thread in Loop shares ownership of the
// queue, since the service's last Release may come from a Run on that thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <tuple>

#include "contract/timer.h"
#include "contract/tracer.h"
#include "host/base/clock.h"
#include "types/ref.h"

namespace veld_report::host {

// Life: made -> looping (one thread in Loop) -> stopped (by Stop). Operations on a stopped queue arm nothing.
// Threads: any, except for Loop. The operations are those of TimerService and are described there.
class TimerQueue final : private IClockListener {
 public:
  TimerQueue(std::shared_ptr<Clock> clock, zel::Ref<zel::ITracer> tracer, std::chrono::milliseconds maxDelay);
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;
  ~TimerQueue();

  // Runs what is due until Stop, and finishes a Run in progress.
  void Loop();
  void Stop();

  zel::ResultCode Arm(zel::IRunnable* sink, std::uint32_t delayMs);
  void Disarm(zel::IRunnable* sink);
  void Cancel(zel::IRunnable* sink);

  std::size_t FireNow();
  bool RunWithin(std::uint32_t delayMs);
  bool IsArmed() const;
  std::uint64_t RunsStarted() const;
  std::uint64_t FailedRuns() const;
  bool WaitForRun(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline);

 private:
  struct Firing {
    Clock::TimePoint due;
    std::uint64_t sequence;  // if two are due at once, the one armed first runs first
    zel::IRunnable* sink;
    std::chrono::milliseconds delay{0};  // the delay given at arming; it may have been moved up since
    friend bool operator<(const Firing& left, const Firing& right) {
      return std::tie(left.due, left.sequence) < std::tie(right.due, right.sequence);
    }
  };

  void OnClockAdvanced() override;
  void Insert(zel::IRunnable* sink, std::chrono::milliseconds delay);
  void Move(std::map<zel::IRunnable*, Firing>::iterator pending, Clock::TimePoint due);
  void ArmBy(zel::IRunnable* sink, Clock::TimePoint due);
  void Remove(zel::IRunnable* sink);
  void RunFirst(std::unique_lock<std::mutex>& lock);
  bool RunGuarded(zel::IRunnable* sink) noexcept;

  const std::shared_ptr<Clock> clock_;
  const zel::Ref<zel::ITracer> tracer_;
  const std::chrono::milliseconds maxDelay_;

  // The sink that was armed last, as long as it is pending, and its delay. Only changed under mutex_, and
  // read without it by Arm: each submission arms the same sink again. Who reads that it is pending can rely
  // on a Run that begins later, since it is withdrawn before its Run. The delay is only changed while the
  // sink is null. In sequence, so that who sees the sink twice has read its own delay in between.
  std::atomic<zel::IRunnable*> soonSink_{nullptr};
  std::atomic<std::chrono::milliseconds::rep> soonDelayMs_{0};

  // Guards the members below. Never held across a call of a sink, of the tracer or of AddListener.
  mutable std::mutex mutex_;
  std::condition_variable changed_;   // for Loop: the first pending call may have changed
  std::condition_variable finished_;  // for waiters: a Run has ended
  std::set<Firing> order_;
  std::map<zel::IRunnable*, Firing> pending_;
  std::thread::id loopThread_;
  zel::IRunnable* running_ = nullptr;
  bool runningCancelled_ = false;  // a Cancel waits for this Run, so its sink can't be armed
  std::uint64_t sequence_ = 0;
  std::uint64_t runsStarted_ = 0;
  std::uint64_t runsFinished_ = 0;
  std::uint64_t failedRuns_ = 0;
  zel::IRunnable* lastSink_ = nullptr;       // of the last Run, until it is cancelled
  std::optional<Clock::TimePoint> againBy_;  // when the sink of the Run in progress must run again
  bool stopped_ = false;
};

}  // namespace veld_report::host
