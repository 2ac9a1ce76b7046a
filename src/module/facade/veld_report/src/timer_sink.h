// zel_helpers::TimerSink makes a member function of its owner callable by the host's timer, and decides when
// to arm the timer.
//
// It is a member of its owner, not a separate object (zel::AutoObject completes it). Its reference counting
// does nothing, and the owner calls Stop and Cancel before its end. Each call of the timer needs its own
// arming: the callback begins with Disarm, and from then on a submission arms the timer again, even while the
// callback is still running.
//
// Life: unbound -> bound -> idle or armed, alternating -> stopped. Without a service it stays unbound.
#pragma once

#include <cstdint>
#include <mutex>

#include "contract/timer.h"
#include "types/ref.h"
#include "zel/rtl/brief_lock.h"
#include "zel/rtl/objclient.h"

namespace zel_helpers {

template <class T>
class TimerSink : zel::IRunnable, public zel::ObjectRootEx<zel::NoServiceStrategy> {
 public:
  using Callback = void (T::*)(void* argument);

  // Doesn't count the owner. Call it on the owner's thread, before the service is set.
  void Bind(T* newOwner, Callback newCallback) {
    owner = newOwner;
    callback = newCallback;
  }

  // Asks for one call unless one is pending. Returns the result of ArmTimer, 1 "False" if the sink is armed,
  // and 0x8000006a "Invalid state" if it is stopped or has no service. An unstopped sink counts as armed
  // afterwards, even without a service or after a refusal. Any thread.
  zel::ResultCode Arm(std::uint32_t delayMs) {
    const std::lock_guard lock(timerLock);
    if (stopped) return zel::eInvalidState;
    if (armed) return zel::sFalse;
    armed = true;
    return timerService ? timerService->ArmTimer(this, delayMs) : zel::eInvalidState;
  }
  // Asks for a call whether or not one is pending, as a submission does. Any thread.
  void ArmAlways(std::uint32_t delayMs) {
    const std::lock_guard lock(timerLock);
    if (stopped) return;
    armed = true;
    if (timerService) timerService->ArmTimer(this, delayMs);
  }
  // Drops the pending call. The callback begins with this.
  void Disarm() {
    const std::lock_guard lock(timerLock);
    armed = false;
    if (timerService) timerService->DisarmTimer(this);
  }
  // After this no arming succeeds.
  void Stop() {
    const std::lock_guard lock(timerLock);
    stopped = true;
    armed = false;
  }
  // Returns once the callback isn't running and won't run again. Don't call it under a lock: the callback
  // takes the sink's.
  void Cancel() {
    if (timerService) timerService->CancelTimer(this);
  }

  // Written while the owner is constructed, then only read. Null: the sink can't be armed.
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
  // Guards the two flags. Held across ArmTimer and DisarmTimer, never across CancelTimer or the callback.
  zel::BriefLock timerLock;
  bool stopped = false;
  bool armed = false;  // a call is pending
};

}  // namespace zel_helpers
