// DrainWatch knows when a cycle of the sender that takes records has moved everything from memory into the
// store.
//
// The sender doesn't report this. But each cycle empties its memory and then asks whether it may send, on the
// timer's thread. So this object is that sender's execution mode and notes in which Run the question comes. A
// cycle that fails before it reaches the memory doesn't ask and isn't noted.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

#include "contract/execution_mode.h"
#include "host/base/host_object.h"
#include "host/services/timer_service.h"

namespace veld_report::host {

// For the use of one sender only. Threads: any.
class DrainWatch final : public HostObject<orvel::IExecutionModeProvider> {
 public:
  // `timer` is the sender's. `onDrained` is called on its thread after each drain, before the drain is
  // noted; what it throws is dropped.
  DrainWatch(zel::Ref<TimerService> timer, std::function<void()> onDrained);

  // Never is: this sender has nothing to send.
  std::uint32_t IsBackgroundDisabled() override;

  // For the sender's own thread, inside a Run.
  bool HasDrainedInThisRun() const { return LastDrained() == timer_->RunsStarted(); }

  // The last Run that has emptied the memory, as a count of the timer's Runs; 0 if there was none. Everything
  // submitted before this Run began, so before RunsStarted() returned a smaller number, is in the store or
  // dropped. What is submitted during the drain may have to wait for the next one.
  std::uint64_t LastDrained() const;
  // Blocks until LastDrained() is above `startedAfter`. False if that didn't happen by the deadline. Not to
  // be called inside a Run.
  bool WaitForDrain(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline) const;

 private:
  const zel::Ref<TimerService> timer_;
  const std::function<void()> onDrained_;

  mutable std::mutex mutex_;  // guards lastDrained_
  mutable std::condition_variable drained_;
  std::uint64_t lastDrained_ = 0;
};

}  // namespace veld_report::host
