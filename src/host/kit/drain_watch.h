// DrainWatch knows when a send cycle has moved everything from memory into the store, which is long before
// the cycle ends.
//
// The sender doesn't report this. But each cycle empties its memory and then, before it sends anything, asks
// whether it may send, on the timer's thread. So this object wraps the execution mode and notes in which Run
// the question comes. That the walk asks again before each queue changes nothing. A cycle that fails before
// it reaches the memory doesn't ask and isn't noted.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "contract/execution_mode.h"
#include "host/base/host_object.h"
#include "host/services/timer_service.h"

namespace veld_report::host {

// For the use of one sender only. Threads: any.
class DrainWatch final : public HostObject<orvel::IExecutionModeProvider> {
 public:
  // Answers like `mode`. `timer` is the sender's.
  DrainWatch(zel::Ref<orvel::IExecutionModeProvider> mode, zel::Ref<TimerService> timer);

  std::uint32_t IsBackgroundDisabled() override;

  // The last Run that has emptied the memory, as a count of the timer's Runs; 0 if there was none. Everything
  // submitted before this Run began, so before RunsStarted() returned a smaller number, is in the store or
  // dropped. What is submitted during the drain may have to wait for the next one.
  std::uint64_t LastDrained() const;
  // Blocks until LastDrained() is above `startedAfter`. False if that didn't happen by the deadline. Not to
  // be called inside a Run.
  bool WaitForDrain(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline) const;

 private:
  const zel::Ref<orvel::IExecutionModeProvider> mode_;
  const zel::Ref<TimerService> timer_;

  mutable std::mutex mutex_;  // guards lastDrained_
  mutable std::condition_variable drained_;
  std::uint64_t lastDrained_ = 0;
};

}  // namespace veld_report::host
