// ExecutionMode, the switch that holds sending back: on battery, on a metered line, during a demonstration.
//
// Records are still taken and stored while it is off, and the sender asks again after its send timeout. It
// doesn't end a cycle that is already running, and it is no substitute for closing the sender.
#pragma once

#include <atomic>

#include "contract/execution_mode.h"
#include "host/base/host_object.h"

namespace veld_report::host {

// Threads: any.
class ExecutionMode final : public HostObject<orvel::IExecutionModeProvider> {
 public:
  // Sending is allowed from the start on.
  void AllowBackground(bool allowed) { allowed_.store(allowed, std::memory_order_relaxed); }
  bool BackgroundAllowed() const { return allowed_.load(std::memory_order_relaxed); }

  std::uint32_t IsBackgroundDisabled() override;

 private:
  std::atomic<bool> allowed_{true};
};

}  // namespace veld_report::host
