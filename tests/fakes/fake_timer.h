// A timer service that stands still until the test moves its clock; a firing runs on the test's thread.
//
// Arming an armed sink keeps the earlier time. It polices its caller: DisarmTimer comes from inside Run of
// that sink, CancelTimer from outside, and nothing arms a sink that was cancelled.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "contract/timer.h"
#include "tests/fakes/fake_object.h"

namespace veld_report::fakes {

class FakeTimer final : public FakeObject<zel::ITimerService> {
 public:
  explicit FakeTimer(FakeWorld& world) : FakeObject(world, "TimerService") {}

  zel::ResultCode ReservedTimerOperation0() override { return Reserved(); }
  zel::ResultCode ReservedTimerOperation1() override { return Reserved(); }
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override;
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override;
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override;

  // Runs the sink that is due first, whatever its delay, on this thread. False if none is armed.
  bool Fire();
  // Moves the clock, running each sink that comes due on the way, in order.
  void Advance(std::uint64_t milliseconds);
  bool Armed() const;
  std::uint64_t DelayMs() const;  // of the sink that is due first
  // Once the owners of cancelled sinks are gone, so that another sink may have such an address.
  void ForgetCancelled();
  int RunsThatThrew() const { return runsThatThrew_; }

  std::atomic<bool> policing{true};

 private:
  bool RunFirst(std::uint64_t limitMs);

  mutable std::mutex lock_;
  std::condition_variable runEnded_;
  std::uint64_t nowMs_ = 0;
  std::map<zel::IRunnable*, std::uint64_t> pending_;  // due time
  std::map<zel::IRunnable*, std::thread::id> running_;
  std::set<zel::IRunnable*> cancelled_;
  std::atomic<int> runsThatThrew_{0};
};

}  // namespace veld_report::fakes
