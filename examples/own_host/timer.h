// The timer service: one thread and a list of pending calls.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

#include "counted.h"
#include "veld_report/contract/timer.h"

namespace own_host {

class Timer final : public Counted<zel::ITimerService> {
 public:
  Timer() : thread_([this] { Loop(); }) {}
  // No sink may be pending any more. Not to be called on the timer's own thread.
  ~Timer() override;

  zel::ResultCode ReservedTimerOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedTimerOperation1() override { return zel::eNotImplemented; }
  // An armed sink keeps the earlier time: a steady stream of submissions must not postpone a Run for ever.
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override;
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override;
  // Waits for a Run of the sink in progress, except inside that Run.
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override;

 private:
  using Clock = std::chrono::steady_clock;
  void Loop();

  std::mutex mutex_;  // guards the members below; not held across Run
  std::condition_variable changed_;
  std::map<zel::IRunnable*, Clock::time_point> pending_;
  zel::IRunnable* running_ = nullptr;
  bool cancelled_ = false;  // the Run in progress was cancelled; what it arms is dropped
  std::uint64_t runsEnded_ = 0;
  bool stop_ = false;
  std::thread thread_;  // last: it uses all the others
};

}  // namespace own_host
