// zel_helpers::TimerSink binds a member function of its owner to a runnable that the host's timer can call,
// with the rules by which it is armed.
//
// It is a member of its owner, not an object of its own (zel::AutoObject completes it): its reference
// counting counts nothing, and the owner calls Stop and Cancel before it goes. A firing is one-shot: the
// callback begins with Disarm, and from then on a submission arms the timer anew, even while the callback
// still runs.
//
// Life: unbound -> bound -> idle or armed, in turns -> stopped. Without a service it stays unbound.
#pragma once

#include <cstdint>
#include <mutex>

#include "contract/timer.h"
#include "types/ref.h"
#include "zel/rtl/objclient.h"

namespace zel_helpers {

template <class T>
class TimerSink : zel::IRunnable, public zel::ObjectRootEx<zel::NoServiceStrategy> {
 public:
  using Callback = void (T::*)(void* argument);

  // The owner isn't counted. Before the service is set, on the owner's thread.
  void Bind(T* newOwner, Callback newCallback) {
    owner = newOwner;
    callback = newCallback;
  }

  // Asks for one firing unless one is asked for already. Returns what ArmTimer did, 1 "False" if the sink is
  // armed, and 0x8000006a "Invalid state" when it is stopped or has no service. A call without a service, or
  // one that the service refused, leaves the sink marked as armed. Any thread.
  zel::ResultCode Arm(std::uint32_t delayMs) {
    const std::lock_guard lock(timerLock);
    if (stopped) return zel::eInvalidState;
    if (armed) return zel::sFalse;
    armed = true;
    return timerService ? timerService->ArmTimer(this, delayMs) : zel::eInvalidState;
  }
  // Asks for a firing whether or not one is asked for: what a submission does. Any thread.
  void ArmAlways(std::uint32_t delayMs) {
    const std::lock_guard lock(timerLock);
    if (stopped) return;
    armed = true;
    if (timerService) timerService->ArmTimer(this, delayMs);
  }
  // Drops what is pending. The callback begins with it.
  void Disarm() {
    const std::lock_guard lock(timerLock);
    armed = false;
    if (timerService) timerService->DisarmTimer(this);
  }
  // From here no arming succeeds.
  void Stop() {
    const std::lock_guard lock(timerLock);
    stopped = true;
    armed = false;
  }
  // Returns when the callback isn't running and won't run again. Not under any lock, since the callback takes
  // the sink's own.
  void Cancel() {
    if (timerService) timerService->CancelTimer(this);
  }

  // Written during the owner's construction, then read freely. Null: the sink can't be armed.
  zel::Ref<zel::ITimerService> timerService;

 private:
  zel::ResultCode QueryInterface(zel::InterfaceId interfaceId, void** out) override {
    if (interfaceId != 0 && interfaceId != zel::IRunnable::iid) {
      *out = nullptr;
      return zel::eInterfaceNotSupported;
    }
    *out = static_cast<zel::IRunnable*>(this);
    AddRef();
    return zel::sOk;
  }
  zel::ResultCode Run(void* argument) override {
    (owner->*callback)(argument);
    return zel::sOk;
  }

  T* owner = nullptr;
  Callback callback = nullptr;
  // Guards the two flags and is held across ArmTimer and DisarmTimer, never across CancelTimer or the
  // callback.
  std::recursive_mutex timerLock;
  bool stopped = false;
  bool armed = false;  // a firing was asked for and hasn't come
};

}  // namespace zel_helpers
