// A timer's sink that notes its Runs and fails the test when two of them overlap.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include "contract/timer.h"

namespace veld_report::tests {

// Like the module's sink it isn't counted: it lives as long as its owner says, and is cancelled before it
// goes.
class RecordingSink final : public zel::IRunnable {
 public:
  using Body = std::function<void(RecordingSink*)>;
  // `service`: borrowed; null if it goes before the sink.
  explicit RecordingSink(zel::ITimerService* service, Body body = {}) : service_(service), body_(body) {}
  ~RecordingSink() {
    if (service_) service_->CancelTimer(this);
  }

  std::uint32_t AddRef() override { return 0; }
  std::uint32_t Release() override { return 0; }
  zel::ResultCode QueryInterface(zel::InterfaceId, void** out) override {
    *out = nullptr;
    return zel::eInterfaceNotSupported;
  }
  zel::ResultCode Run(void*) override {
    EXPECT_FALSE(IsRunning()) << "two Runs of one sink at once";
    Count(&started_);
    const std::unique_ptr<RecordingSink, void (*)(RecordingSink*)> leaving(
        this, [](RecordingSink* sink) { sink->Count(&sink->ended_); });
    if (body_) body_(this);
    return zel::sOk;
  }

  bool WaitForStarts(int count) { return WaitFor(started_, count); }
  bool WaitForEnds(int count) { return WaitFor(ended_, count); }
  int Started() const {
    const std::lock_guard lock(mutex_);
    return started_;
  }
  bool IsRunning() const {
    const std::lock_guard lock(mutex_);
    return started_ != ended_;
  }

 private:
  void Count(int* counter) {
    const std::lock_guard lock(mutex_);
    ++*counter;
    changed_.notify_all();
  }
  bool WaitFor(const int& counter, int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return counter >= count; });
  }

  zel::ITimerService* const service_;
  const Body body_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  int started_ = 0;
  int ended_ = 0;
};

}  // namespace veld_report::tests
