#include "host/services/timer_service.h"

#include <utility>

#include "host/platform/service_thread.h"
#include "host/services/timer_queue.h"

namespace veld_report::host {

TimerService::TimerService(TimerOptions options) {
  std::shared_ptr<Clock> clock = options.clock ? std::move(options.clock) : std::make_shared<SystemClock>();
  queue_ = std::make_shared<TimerQueue>(std::move(clock), std::move(options.tracer), options.maxDelay);
  thread_ = StartServiceThread("veld-timer", [queue = queue_] { queue->Loop(); });
}

TimerService::~TimerService() {
  queue_->Stop();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

zel::ResultCode TimerService::ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) {
  return Guarded([&] { return queue_->Arm(sink, delayMs); });
}

zel::ResultCode TimerService::DisarmTimer(zel::IRunnable* sink) {
  return Guarded([&] {
    queue_->Disarm(sink);
    return zel::sOk;
  });
}

zel::ResultCode TimerService::CancelTimer(zel::IRunnable* sink) {
  return Guarded([&] {
    queue_->Cancel(sink);
    return zel::sOk;
  });
}

std::size_t TimerService::FireNow() { return queue_->FireNow(); }
bool TimerService::RunWithin(std::uint32_t delayMs) { return queue_->RunWithin(delayMs); }
bool TimerService::IsArmed() const { return queue_->IsArmed(); }
std::uint64_t TimerService::RunsStarted() const { return queue_->RunsStarted(); }
std::uint64_t TimerService::FailedRuns() const { return queue_->FailedRuns(); }

bool TimerService::WaitForRun(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline) {
  return queue_->WaitForRun(startedAfter, deadline);
}

}  // namespace veld_report::host
