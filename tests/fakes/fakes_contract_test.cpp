// The fakes under the contract suites of the real services, so that the two can't drift apart.

#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "host/base/host_object.h"
#include "tests/fakes/fake_queues.h"
#include "tests/fakes/fake_timer.h"
#include "tests/host/queue_contract.h"
#include "tests/host/timer_contract.h"

namespace veld_report::tests {
namespace {

class FakeQueuesUnderTest final : public QueuesUnderTest {
 public:
  FakeQueuesUnderTest() { factory_->store.policing = false; }
  orvel::IQueueFactory& Factory() override { return *factory_; }
  // The memory is the disk of this service.
  void Restart() override {}

 private:
  fakes::FakeWorld world_;
  zel::Ref<fakes::FakeQueueFactory> factory_ = fakes::MakeFake<fakes::FakeQueueFactory>(world_);
};

INSTANTIATE_TEST_SUITE_P(Fake, QueueContract, testing::Values(MakeQueues<FakeQueuesUnderTest>));

// A FakeTimer whose firings run on a thread of its own, as those of a real service do.
class DrivenTimer final : public host::HostObject<zel::ITimerService> {
 public:
  DrivenTimer() : thread_([this] { Drive(); }) { timer_->policing = false; }
  zel::ResultCode ReservedTimerOperation0() override { return timer_->ReservedTimerOperation0(); }
  zel::ResultCode ReservedTimerOperation1() override { return timer_->ReservedTimerOperation1(); }
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override {
    const zel::ResultCode code = timer_->ArmTimer(sink, delayMs);
    Pass(0);
    return code;
  }
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override { return timer_->DisarmTimer(sink); }
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override {
    timer_->CancelTimer(sink);
    return zel::sOk;
  }
  void Pass(std::uint32_t milliseconds) {
    const std::lock_guard lock(mutex_);
    passedMs_ += milliseconds;
    asked_ = true;
    changed_.notify_all();
  }

 private:
  ~DrivenTimer() override {
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
      changed_.notify_all();
    }
    thread_.join();
  }
  void Drive() {
    std::unique_lock lock(mutex_);
    while (!ended_) {
      changed_.wait(lock, [this] { return asked_ || ended_; });
      asked_ = false;
      const std::uint64_t passedMs = std::exchange(passedMs_, 0);
      lock.unlock();
      timer_->Advance(passedMs);
      lock.lock();
    }
  }

  fakes::FakeWorld world_;
  zel::Ref<fakes::FakeTimer> timer_ = fakes::MakeFake<fakes::FakeTimer>(world_);
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t passedMs_ = 0;
  bool asked_ = false;
  bool ended_ = false;
  std::thread thread_;
};

TimerUnderTest MakeDrivenTimer() {
  const zel::Ref<DrivenTimer> timer = host::MakeObject<DrivenTimer>();
  return {timer, [service = timer.Get()](std::uint32_t milliseconds) { service->Pass(milliseconds); }};
}

INSTANTIATE_TEST_SUITE_P(Fake, TimerContract, testing::Values(TimerMaker{"Fake", MakeDrivenTimer}));

}  // namespace
}  // namespace veld_report::tests
