// A timer service that stands still until the test moves its clock; a firing runs on the test's thread.
//
// Arming an armed sink keeps the earlier time. It polices its caller: DisarmTimer comes from inside Run of
// that sink, CancelTimer from outside, and nothing arms a sink that was cancelled.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
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
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override {
    Use();
    if (const auto code = world().Enter("ArmTimer", std::to_string(delayMs))) return code;
    std::lock_guard guard(lock_);
    if (policing && cancelled_.contains(sink)) Fault("TimerService: ArmTimer after CancelTimer");
    const std::uint64_t due = nowMs_ + delayMs;
    const auto place = pending_.emplace(sink, due).first;
    place->second = std::min(place->second, due);
    return world().Done();
  }
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override {
    Use();
    if (const auto code = world().Enter("DisarmTimer")) return code;
    std::lock_guard guard(lock_);
    if (policing && !RunsHere(sink)) Fault("TimerService: DisarmTimer from outside Run");
    pending_.erase(sink);
    return world().Done();
  }
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override {
    Use();
    zel::ResultCode code = zel::sOk;
    std::exception_ptr thrown;
    try {
      code = world().Answer("CancelTimer");
    } catch (...) {
      thrown = std::current_exception();
    }
    // Whatever it is to answer, it cancels: a sink that stayed armed would outlive its owner.
    std::unique_lock guard(lock_);
    if (RunsHere(sink)) {
      if (policing) Fault("TimerService: CancelTimer from inside Run");
      pending_.erase(sink);
      return zel::eInvalidState;
    }
    pending_.erase(sink);
    if (policing) cancelled_.insert(sink);
    const bool ended =
        runEnded_.wait_for(guard, std::chrono::seconds(30), [&] { return !running_.contains(sink); });
    if (!ended) Fault("TimerService: Run didn't end within 30 seconds of CancelTimer");
    // A Run that was in progress may have armed the sink again.
    pending_.erase(sink);
    if (thrown) std::rethrow_exception(thrown);
    return code;
  }

  // Runs the sink that is due first, whatever its delay, on this thread. False if none is armed.
  bool Fire() { return RunFirst(UINT64_MAX); }
  // Moves the clock, running each sink that comes due on the way, in order.
  void Advance(std::uint64_t milliseconds) {
    const std::uint64_t target = nowMs_ + milliseconds;
    while (RunFirst(target)) {
    }
    nowMs_ = target;
  }
  bool Armed() const {
    std::lock_guard guard(lock_);
    return !pending_.empty();
  }
  // Of the only sink that is armed.
  std::uint64_t DelayMs() const {
    std::lock_guard guard(lock_);
    return pending_.size() == 1 ? pending_.begin()->second - nowMs_ : UINT64_MAX;
  }
  // Once the owners of cancelled sinks are gone, so that another sink may have such an address.
  void ForgetCancelled() {
    std::lock_guard guard(lock_);
    cancelled_.clear();
  }

  std::atomic<bool> policing{true};

 private:
  bool RunsHere(zel::IRunnable* sink) const {
    const auto running = running_.find(sink);
    return running != running_.end() && running->second == std::this_thread::get_id();
  }
  bool RunFirst(std::uint64_t limitMs) {
    std::unique_lock guard(lock_);
    const auto first = std::min_element(pending_.begin(), pending_.end(),
                                        [](const auto& a, const auto& b) { return a.second < b.second; });
    if (first == pending_.end() || first->second > limitMs) return false;
    zel::IRunnable* sink = first->first;
    nowMs_ = std::max(nowMs_.load(), first->second);
    pending_.erase(first);
    if (!running_.emplace(sink, std::this_thread::get_id()).second) Fault("the test fires a running sink");
    guard.unlock();
    world().log.Add("Run");
    try {
      if (sink->Run(nullptr) != zel::sOk) Fault("TimerService: Run didn't answer 0");
    } catch (...) {
      // A service outlives what its sinks throw.
    }
    guard.lock();
    running_.erase(sink);
    runEnded_.notify_all();
    return true;
  }

  mutable std::mutex lock_;
  std::condition_variable runEnded_;
  std::atomic<std::uint64_t> nowMs_ = 0;
  std::map<zel::IRunnable*, std::uint64_t> pending_;  // due time
  std::map<zel::IRunnable*, std::thread::id> running_;
  std::set<zel::IRunnable*> cancelled_;
};

}  // namespace veld_report::fakes
