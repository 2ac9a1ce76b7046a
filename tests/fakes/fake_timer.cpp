#include "tests/fakes/fake_timer.h"

#include <algorithm>
#include <chrono>

namespace veld_report::fakes {

zel::ResultCode FakeTimer::ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) {
  Use();
  if (const auto code = world().Enter("ArmTimer", std::to_string(delayMs))) return code;
  std::lock_guard guard(lock_);
  if (policing && cancelled_.contains(sink)) Fault("TimerService: ArmTimer after CancelTimer");
  const std::uint64_t due = nowMs_ + delayMs;
  const auto [place, isNew] = pending_.emplace(sink, due);
  if (!isNew) place->second = std::min(place->second, due);
  return zel::sOk;
}

zel::ResultCode FakeTimer::DisarmTimer(zel::IRunnable* sink) {
  Use();
  if (const auto code = world().Enter("DisarmTimer")) return code;
  std::lock_guard guard(lock_);
  const auto running = running_.find(sink);
  if (policing && (running == running_.end() || running->second != std::this_thread::get_id())) {
    Fault("TimerService: DisarmTimer from outside Run");
  }
  pending_.erase(sink);
  return zel::sOk;
}

zel::ResultCode FakeTimer::CancelTimer(zel::IRunnable* sink) {
  Use();
  const auto code = world().Enter("CancelTimer");
  std::unique_lock guard(lock_);
  const auto running = running_.find(sink);
  if (running != running_.end() && running->second == std::this_thread::get_id()) {
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
  return code;
}

bool FakeTimer::RunFirst(std::uint64_t limitMs) {
  zel::IRunnable* sink = nullptr;
  {
    std::lock_guard guard(lock_);
    const auto first = std::min_element(pending_.begin(), pending_.end(),
                                        [](const auto& a, const auto& b) { return a.second < b.second; });
    if (first == pending_.end() || first->second > limitMs) return false;
    sink = first->first;
    nowMs_ = std::max(nowMs_, first->second);
    pending_.erase(first);
    if (!running_.emplace(sink, std::this_thread::get_id()).second) {
      Fault("the test fires a sink that is running");
      return false;
    }
  }
  world().log.Add("Run");
  try {
    if (sink->Run(nullptr) != zel::sOk) Fault("TimerService: Run didn't answer 0");
  } catch (...) {
    ++runsThatThrew_;
  }
  std::lock_guard guard(lock_);
  running_.erase(sink);
  runEnded_.notify_all();
  return true;
}

bool FakeTimer::Fire() { return RunFirst(UINT64_MAX); }

void FakeTimer::Advance(std::uint64_t milliseconds) {
  std::uint64_t target;
  {
    std::lock_guard guard(lock_);
    target = nowMs_ + milliseconds;
  }
  while (RunFirst(target)) {
  }
  std::lock_guard guard(lock_);
  nowMs_ = std::max(nowMs_, target);
}

bool FakeTimer::Armed() const {
  std::lock_guard guard(lock_);
  return !pending_.empty();
}

void FakeTimer::ForgetCancelled() {
  std::lock_guard guard(lock_);
  cancelled_.clear();
}

std::uint64_t FakeTimer::DelayMs() const {
  std::lock_guard guard(lock_);
  std::uint64_t first = UINT64_MAX;
  for (const auto& [sink, due] : pending_) first = std::min(first, due);
  return pending_.empty() ? 0 : first - nowMs_;
}

}  // namespace veld_report::fakes
