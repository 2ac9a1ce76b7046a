#include "timer.h"

#include <algorithm>

namespace own_host {

Timer::~Timer() {
  {
    const std::scoped_lock lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

zel::ResultCode Timer::ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) {
  const Clock::time_point due = Clock::now() + std::chrono::milliseconds(delayMs);
  {
    const std::scoped_lock lock(mutex_);
    const auto [place, isNew] = pending_.try_emplace(sink, due);
    if (!isNew) place->second = std::min(place->second, due);
  }
  changed_.notify_all();
  return zel::sOk;
}

zel::ResultCode Timer::DisarmTimer(zel::IRunnable* sink) {
  const std::scoped_lock lock(mutex_);
  pending_.erase(sink);
  return zel::sOk;
}

zel::ResultCode Timer::CancelTimer(zel::IRunnable* sink) {
  std::unique_lock lock(mutex_);
  pending_.erase(sink);
  if (running_ != sink || std::this_thread::get_id() == thread_.get_id()) return zel::sOk;
  // The Run may arm its sink again before it ends. Waiting for an idle sink could then take for ever.
  cancelled_ = true;
  changed_.wait(lock, [&, before = runsEnded_] { return runsEnded_ != before; });
  return zel::sOk;
}

void Timer::Loop() {
  std::unique_lock lock(mutex_);
  while (!stop_) {
    const auto next = std::min_element(pending_.begin(), pending_.end(),
                                       [](const auto& a, const auto& b) { return a.second < b.second; });
    if (next == pending_.end()) {
      changed_.wait(lock);
    } else if (const Clock::time_point due = next->second; due > Clock::now()) {
      changed_.wait_until(lock, due);
    } else {
      running_ = next->first;
      cancelled_ = false;
      pending_.erase(next);
      lock.unlock();
      try {
        running_->Run(nullptr);
      } catch (...) {
        // The sink's own problem. The other sinks still need this thread.
      }
      lock.lock();
      if (cancelled_) pending_.erase(running_);
      running_ = nullptr;
      ++runsEnded_;
      changed_.notify_all();
    }
  }
}

}  // namespace own_host
