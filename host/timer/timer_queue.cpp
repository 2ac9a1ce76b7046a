#include "host/timer/timer_queue.h"

#include <utility>

#include "host/base/trace_line.h"

namespace veld_report::host {

TimerQueue::TimerQueue(std::shared_ptr<Clock> clock, zel::Ref<zel::ITracer> tracer)
    : clock_(std::move(clock)), tracer_(std::move(tracer)) {
  clock_->AddListener(this);
}

TimerQueue::~TimerQueue() { clock_->RemoveListener(this); }

void TimerQueue::OnClockAdvanced() {
  const std::lock_guard lock(mutex_);
  changed_.notify_all();
}

void TimerQueue::Loop() {
  std::unique_lock lock(mutex_);
  loopThread_ = std::this_thread::get_id();
  while (!stopped_) {
    if (order_.empty()) {
      changed_.wait(lock);
    } else if (order_.begin()->due > clock_->Now()) {
      clock_->WaitUntil(changed_, lock, order_.begin()->due);
    } else {
      RunFirst(lock);
    }
  }
}

void TimerQueue::RunFirst(std::unique_lock<std::mutex>& lock) {
  zel::IRunnable* const sink = order_.begin()->sink;
  Remove(sink);
  running_ = sink;
  runningCancelled_ = false;
  ++runsStarted_;
  lock.unlock();
  const bool succeeded = RunGuarded(sink);
  lock.lock();
  // From here on a canceller may return and the sink be gone.
  running_ = nullptr;
  runsFinished_ = runsStarted_;
  if (!succeeded) ++failedRuns_;
  finished_.notify_all();
}

bool TimerQueue::RunGuarded(zel::IRunnable* sink) noexcept {
  try {
    sink->Run(nullptr);
    return true;
  } catch (...) {
    TraceLine(tracer_.Get(), failureLevel, "veld_host\tTimer: an exception left a Run; the timer goes on");
    return false;
  }
}

void TimerQueue::Stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  order_.clear();
  pending_.clear();
  changed_.notify_all();
  finished_.notify_all();
}

void TimerQueue::Insert(zel::IRunnable* sink, Clock::TimePoint due) {
  const Firing firing{due, sequence_++, sink};
  const auto place = order_.insert(firing).first;
  try {
    pending_.emplace(sink, firing);
  } catch (...) {
    order_.erase(place);
    throw;
  }
  if (place == order_.begin()) changed_.notify_all();
}

bool TimerQueue::Remove(zel::IRunnable* sink) {
  const auto found = pending_.find(sink);
  if (found == pending_.end()) return false;
  order_.erase(found->second);
  pending_.erase(found);
  return true;
}

zel::ResultCode TimerQueue::Arm(zel::IRunnable* sink, std::uint32_t delayMs) {
  if (!sink) return zel::eInvalidArgument;
  const std::lock_guard lock(mutex_);
  if (stopped_ || (runningCancelled_ && running_ == sink)) return zel::eInvalidState;
  const Clock::TimePoint due = clock_->Now() + std::chrono::milliseconds(delayMs);
  const auto found = pending_.find(sink);
  if (found != pending_.end() && found->second.due <= due) return zel::sOk;
  Remove(sink);
  Insert(sink, due);
  return zel::sOk;
}

void TimerQueue::Disarm(zel::IRunnable* sink) {
  const std::lock_guard lock(mutex_);
  Remove(sink);
}

void TimerQueue::Cancel(zel::IRunnable* sink) {
  std::unique_lock lock(mutex_);
  Remove(sink);
  // A Run that cancels its own sink can't wait for itself.
  if (running_ != sink || loopThread_ == std::this_thread::get_id()) return;
  // Without this mark a Run that arms itself again could begin anew before the waiter wakes.
  runningCancelled_ = true;
  const std::uint64_t run = runsStarted_;
  finished_.wait(lock, [&] { return runsFinished_ >= run; });
}

std::size_t TimerQueue::FireNow() {
  const std::lock_guard lock(mutex_);
  const Clock::TimePoint now = clock_->Now();
  std::set<Firing> moved;
  for (const Firing& firing : order_) {
    moved.insert({firing.due < now ? firing.due : now, firing.sequence, firing.sink});
  }
  // Nothing below can fail, so the two containers never differ.
  for (const Firing& firing : moved) pending_.find(firing.sink)->second = firing;
  order_.swap(moved);
  changed_.notify_all();
  return order_.size();
}

bool TimerQueue::IsArmed() const {
  const std::lock_guard lock(mutex_);
  return !order_.empty();
}

std::uint64_t TimerQueue::RunsStarted() const {
  const std::lock_guard lock(mutex_);
  return runsStarted_;
}

std::uint64_t TimerQueue::FailedRuns() const {
  const std::lock_guard lock(mutex_);
  return failedRuns_;
}

bool TimerQueue::WaitForRun(std::uint64_t startedAfter, std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mutex_);
  finished_.wait_until(lock, deadline, [&] { return stopped_ || runsFinished_ > startedAfter; });
  return runsFinished_ > startedAfter;
}

}  // namespace veld_report::host
