// The host's gate for background work. Optional; without it sending is always allowed.
#pragma once

#include "types/object.h"

namespace orvel {

class IExecutionModeProvider : public zel::IObject {
 public:
  static constexpr zel::InterfaceId iid = 0x26248558;
  // Non-zero while background work is disabled: records still reach the queues, nothing is sent, and the
  // sender asks again after sendTimeout. Any thread.
  virtual std::uint32_t IsBackgroundDisabled() = 0;

 protected:
  ~IExecutionModeProvider() = default;
};

}  // namespace orvel
