// ExecutionMode: a switch that holds back sending, on battery, on a metered connection or during a
// demonstration.
//
// While it is off, records are still accepted and stored, and the sender asks again after its send timeout.
// It asks between two queues, never inside one, so a running cycle goes on for a while. HostKit::AllowSending
// also ends its requests.
#pragma once

#include <atomic>

#include "contract/execution_mode.h"
#include "host/base/host_object.h"

namespace veld_report::host {

// Threads: any.
class ExecutionMode final : public HostObject<orvel::IExecutionModeProvider> {
 public:
  // Sending is allowed at first.
  void AllowBackground(bool allowed) { allowed_.store(allowed, std::memory_order_relaxed); }
  bool BackgroundAllowed() const { return allowed_.load(std::memory_order_relaxed); }

  std::uint32_t IsBackgroundDisabled() override;

 private:
  // A choice that publishes nothing. A cycle that must see it is begun after it under the timer's lock.
  std::atomic<bool> allowed_{true};
};

}  // namespace veld_report::host
