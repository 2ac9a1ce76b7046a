// A timer's sink that notes its Runs and fails the test when two of them overlap.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "contract/timer.h"

namespace veld_report::tests {

// Like the module's sink it isn't counted: it lives as long as its owner says.
class RecordingSink final : public zel::IRunnable {
 public:
  explicit RecordingSink(std::function<void()> body = {}) : body_(std::move(body)) {}

  std::uint32_t AddRef() override { return 0; }
  std::uint32_t Release() override { return 0; }
  zel::ResultCode QueryInterface(zel::InterfaceId, void** out) override {
    *out = nullptr;
    return zel::eInterfaceNotSupported;
  }
  zel::ResultCode Run(void*) override {
    {
      const std::lock_guard lock(mutex_);
      EXPECT_FALSE(running_) << "two Runs of one sink at once";
      running_ = true;
      ++started_;
      changed_.notify_all();
    }
    const Leaving leaving{*this};
    if (body_) body_();
    return zel::sOk;
  }

  bool WaitForStarts(int count) {
    return Wait([&] { return started_ >= count; });
  }
  bool WaitForEnds(int count) {
    return Wait([&] { return ended_ >= count; });
  }
  int Started() const {
    const std::lock_guard lock(mutex_);
    return started_;
  }
  bool IsRunning() const {
    const std::lock_guard lock(mutex_);
    return running_;
  }

 private:
  struct Leaving {
    RecordingSink& sink;
    ~Leaving() {
      const std::lock_guard lock(sink.mutex_);
      sink.running_ = false;
      ++sink.ended_;
      sink.changed_.notify_all();
    }
  };
  template <class Condition>
  bool Wait(Condition&& condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), condition);
  }

  const std::function<void()> body_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  bool running_ = false;
  int started_ = 0;
  int ended_ = 0;
};

// Opened once; passes everybody who waits for it.
class Gate {
 public:
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool WaitOpen() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

}  // namespace veld_report::tests
