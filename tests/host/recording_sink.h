// A timer's sink that notes its Runs and fails the test when two of them overlap.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>

#include "contract/timer.h"
#include "tests/common/waiting.h"

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
    EXPECT_FALSE(running_.exchange(true)) << "two Runs of one sink at once";
    ++started_;
    // The count of ends comes last: once a test has seen it, the sink may go.
    const std::unique_ptr<RecordingSink, void (*)(RecordingSink*)> leaving(this, [](RecordingSink* sink) {
      sink->running_ = false;
      ++sink->ended_;
    });
    if (body_) body_(this);
    return zel::sOk;
  }

  bool WaitForStarts(int count) const {
    return Eventually([&] { return started_ >= count; });
  }
  bool WaitForEnds(int count) const {
    return Eventually([&] { return ended_ >= count; });
  }
  int Started() const { return started_; }
  bool IsRunning() const { return running_; }

 private:
  zel::ITimerService* const service_;
  const Body body_;
  std::atomic<bool> running_ = false;
  std::atomic<int> started_ = 0, ended_ = 0;
};

}  // namespace veld_report::tests
