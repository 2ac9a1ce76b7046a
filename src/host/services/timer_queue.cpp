#include "host/services/timer_queue.h"

#include <algorithm>
#include <new>
#include <utility>

#include "host/base/write_trace.h"

namespace veld_report::host {

TimerQueue::TimerQueue(std::shared_ptr<Clock> clock, zel::Ref<zel::ITracer> tracer,
                       std::chrono::milliseconds maxDelay)
    : clock_(std::move(clock)), tracer_(std::move(tracer)), maxDelay_(maxDelay) {
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
  running_ = lastSink_ = sink;
  runningCancelled_ = false;
  againBy_.reset();
  ++runsStarted_;
  lock.unlock();
  const bool succeeded = RunGuarded(sink);
  lock.lock();
  // Only now: a Run begins by dropping what is pending.
  if (againBy_ && lastSink_ == sink && !stopped_) ArmBy(sink, *againBy_);
  // From here on a canceller may return and the sink may be gone.
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
    WriteTrace(tracer_.Get(), failureLevel,
               "veld_host\tTimer: a Run threw an exception; the timer continues");
    return false;
  }
}

void TimerQueue::Stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  soonSink_ = nullptr;
  order_.clear();
  pending_.clear();
  changed_.notify_all();
  finished_.notify_all();
}

void TimerQueue::Insert(zel::IRunnable* sink, std::chrono::milliseconds delay) {
  const Firing firing{clock_->Now() + delay, sequence_++, sink, delay};
  const auto place = order_.insert(firing).first;
  try {
    pending_.emplace(sink, firing);
  } catch (...) {
    order_.erase(place);
    throw;
  }
  soonSink_ = nullptr;
  soonDelayMs_ = delay.count();
  soonSink_ = sink;
  if (place == order_.begin()) changed_.notify_all();
}

// Needs no memory, so an armed sink stays armed.
void TimerQueue::Move(std::map<zel::IRunnable*, Firing>::iterator pending, Clock::TimePoint due) {
  auto node = order_.extract(pending->second);
  pending->second.due = due;
  node.value() = pending->second;
  // Insertion and comparison are separate statements: in one expression the compiler might call begin()
  // first.
  const auto place = order_.insert(std::move(node)).position;
  if (place == order_.begin()) changed_.notify_all();
}

void TimerQueue::Remove(zel::IRunnable* sink) {
  const auto found = pending_.find(sink);
  if (found == pending_.end()) return;
  if (soonSink_ == sink) soonSink_ = nullptr;
  order_.erase(found->second);
  pending_.erase(found);
}

zel::ResultCode TimerQueue::Arm(zel::IRunnable* sink, std::uint32_t delayMs) {
  if (!sink) return zel::eInvalidArgument;
  const std::chrono::milliseconds delay = std::min(std::chrono::milliseconds(delayMs), maxDelay_);
  // Asked again, since the delay may be that of another sink that was armed in between.
  if (soonSink_ == sink && delay.count() >= soonDelayMs_ && soonSink_ == sink) return zel::sOk;
  const std::lock_guard lock(mutex_);
  if (stopped_ || (runningCancelled_ && running_ == sink)) return zel::eInvalidState;
  const auto found = pending_.find(sink);
  if (found == pending_.end()) {
    Insert(sink, delay);
    return zel::sOk;
  }
  // If the delay is no shorter, the clock needn't be read.
  if (delay >= found->second.delay) return zel::sOk;
  const Clock::TimePoint due = clock_->Now() + delay;
  if (due < found->second.due) Move(found, due);
  return zel::sOk;
}

void TimerQueue::Disarm(zel::IRunnable* sink) {
  const std::lock_guard lock(mutex_);
  Remove(sink);
}

void TimerQueue::Cancel(zel::IRunnable* sink) {
  std::unique_lock lock(mutex_);
  Remove(sink);
  if (lastSink_ == sink) lastSink_ = nullptr;
  // A Run that cancels its own sink can't wait for itself.
  if (running_ != sink || loopThread_ == std::this_thread::get_id()) return;
  // Without this mark a Run that arms itself again could start again before the waiter wakes.
  runningCancelled_ = true;
  const std::uint64_t run = runsStarted_;
  finished_.wait(lock, [&] { return runsFinished_ >= run; });
}

std::size_t TimerQueue::FireNow() {
  const std::lock_guard lock(mutex_);
  const Clock::TimePoint now = clock_->Now();
  for (auto pending = pending_.begin(); pending != pending_.end(); ++pending) {
    if (now < pending->second.due) Move(pending, now);
  }
  return order_.size();
}

bool TimerQueue::RunWithin(std::uint32_t delayMs) {
  const std::lock_guard lock(mutex_);
  if (stopped_ || !lastSink_) return false;
  const Clock::TimePoint due = clock_->Now() + std::chrono::milliseconds(delayMs);
  if (!running_) {
    ArmBy(lastSink_, due);
  } else if (!againBy_ || due < *againBy_) {
    againBy_ = due;
  }
  return true;
}

// Without memory it arms nothing.
void TimerQueue::ArmBy(zel::IRunnable* sink, Clock::TimePoint due) {
  const auto found = pending_.find(sink);
  if (found != pending_.end()) {
    if (due < found->second.due) Move(found, due);
    return;
  }
  try {
    Insert(sink, std::chrono::ceil<std::chrono::milliseconds>(
                     std::max(due - clock_->Now(), Clock::TimePoint::duration(0))));
  } catch (const std::bad_alloc&) {
    // The next submission arms the sink.
  }
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
