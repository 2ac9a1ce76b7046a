// The host's one-shot timers. Optional, but without them no send cycle runs.
#pragma once

#include "types/object.h"

namespace zel {

// What a timer calls. The module implements it.
class IRunnable : public IObject {
 public:
  static constexpr InterfaceId iid = 0xe8305a5d;
  // `argument` isn't looked at. Answers 0.
  virtual ResultCode Run(void* argument) = 0;

 protected:
  ~IRunnable() = default;
};

// The service keeps no reference that counts on a sink: a sink is valid until CancelTimer has returned.
class ITimerService : public IObject {
 public:
  static constexpr InterfaceId iid = 0xccd50778;
  virtual ResultCode ReservedTimerOperation0() = 0;
  virtual ResultCode ReservedTimerOperation1() = 0;
  // Calls Run on the sink once after the delay, on a thread of the service, never twice at once for one sink.
  // Whether arming an armed sink restarts the delay is the service's choice. Must not wait for a Run of this
  // sink: it is called under a lock that Run takes.
  virtual ResultCode ArmTimer(IRunnable* sink, std::uint32_t delayMs) = 0;
  // Forgets the pending firing, if any. Called from inside Run too, under the same lock.
  virtual ResultCode DisarmTimer(IRunnable* sink) = 0;
  // Forgets the pending firing and returns only when no Run of this sink is in progress and none can begin.
  // A failure and an exception promise the same: the sink goes once the call is over.
  virtual ResultCode CancelTimer(IRunnable* sink) = 0;

 protected:
  ~ITimerService() = default;
};

}  // namespace zel
