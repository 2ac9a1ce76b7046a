// DrainWatch: when a send cycle has moved everything from memory into the store, which is long before it
// ends.
//
// The sender doesn't tell. But each cycle empties its memory and right behind that, before it sends anything,
// asks whether it may send, on the timer's thread. So this object stands in front of the execution mode and
// notes in which Run the question comes; that the walk asks again before each queue changes nothing. A cycle
// that fails before it has come to the memory doesn't ask and isn't noted.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "contract/execution_mode.h"
#include "host/base/host_object.h"
#include "host/services/timer_service.h"

namespace veld_report::host {

// For one sender, which is the only one to ask it. Threads: any.
class DrainWatch final : public HostObject<orvel::IExecutionModeProvider> {
 public:
  // Answers what `mode` answers. `timer` is the sender's.
  DrainWatch(zel::Ref<orvel::IExecutionModeProvider> mode, zel::Ref<TimerService> timer);

  std::uint32_t IsBackgroundDisabled() override;

  // The youngest Run that has emptied the memory, as a count of the timer's Runs; 0: none yet. With it
  // everything is in the store, or dropped, that had been submitted before this Run began, so before
  // RunsStarted() gave a smaller number. What is submitted while it drains may have to wait for the next one.
  std::uint64_t LastDrained() const;
  // Blocks until LastDrained() is above `startedAfter`. False: not before the deadline. Not from inside a
  // Run.
  bool WaitForDrain(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline) const;

 private:
  const zel::Ref<orvel::IExecutionModeProvider> mode_;
  const zel::Ref<TimerService> timer_;

  mutable std::mutex mutex_;  // guards lastDrained_
  mutable std::condition_variable drained_;
  std::uint64_t lastDrained_ = 0;
};

}  // namespace veld_report::host
