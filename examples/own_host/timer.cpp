#include "timer.h"

#include <algorithm>

namespace own_host {

Timer::~Timer() {
  {
    const std::scoped_lock hold(lock_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

zel::ResultCode Timer::ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) {
  const Clock::time_point due = Clock::now() + std::chrono::milliseconds(delayMs);
  {
    const std::scoped_lock hold(lock_);
    const auto [place, isNew] = pending_.try_emplace(sink, due);
    if (!isNew) place->second = std::min(place->second, due);
  }
  changed_.notify_all();
  return zel::sOk;
}

zel::ResultCode Timer::DisarmTimer(zel::IRunnable* sink) {
  const std::scoped_lock hold(lock_);
  pending_.erase(sink);
  return zel::sOk;
}

zel::ResultCode Timer::CancelTimer(zel::IRunnable* sink) {
  std::unique_lock hold(lock_);
  pending_.erase(sink);
  changed_.wait(hold, [&] { return running_ != sink; });
  // A run that has just ended may have armed the sink again.
  pending_.erase(sink);
  return zel::sOk;
}

void Timer::Loop() {
  std::unique_lock hold(lock_);
  while (!stop_) {
    const auto next = std::min_element(pending_.begin(), pending_.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    if (next == pending_.end()) {
      changed_.wait(hold);
    } else if (const Clock::time_point due = next->second; due > Clock::now()) {
      changed_.wait_until(hold, due);
    } else {
      running_ = next->first;
      pending_.erase(next);
      hold.unlock();
      running_->Run(nullptr);
      hold.lock();
      running_ = nullptr;
      changed_.notify_all();
    }
  }
}

}  // namespace own_host
