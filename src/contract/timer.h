// The host's one-shot timers. Optional, but without them there are no send cycles.
#pragma once

#include "types/object.h"

namespace zel {

// Called by a timer. The module implements it.
class IRunnable : public IObject {
 public:
  static constexpr InterfaceId iid = 0xe8305a5d;
  // `argument` is ignored. Returns 0.
  virtual ResultCode Run(void* argument) = 0;

 protected:
  ~IRunnable() = default;
};

// The service doesn't count its references to a sink: a sink is valid until CancelTimer has returned.
class ITimerService : public IObject {
 public:
  static constexpr InterfaceId iid = 0xccd50778;
  virtual ResultCode ReservedTimerOperation0() = 0;
  virtual ResultCode ReservedTimerOperation1() = 0;
  // Calls Run on the sink once after the delay, on a thread of the service, and never concurrently for one
  // sink. Whether arming an armed sink restarts the delay is up to the service. Must not wait for a Run of
  // this sink: it is called under a lock that Run takes.
  virtual ResultCode ArmTimer(IRunnable* sink, std::uint32_t delayMs) = 0;
  // Cancels the pending call, if any. Also called from inside Run, under the same lock.
  virtual ResultCode DisarmTimer(IRunnable* sink) = 0;
  // Cancels the pending call. Returns only when no Run of this sink is in progress and none can begin. That
  // must hold even if it fails or throws: the sink is destroyed after the call.
  virtual ResultCode CancelTimer(IRunnable* sink) = 0;

 protected:
  ~ITimerService() = default;
};

}  // namespace zel
