#include "host/reporter/loss_reporter.h"

#include "host/base/redact.h"
#include "host/platform/service_thread.h"
#include "host/services/queue_name.h"

namespace veld_report {
namespace {

// Losses come in groups, so that the first call waits a little.
constexpr std::chrono::milliseconds firstPause{50};
constexpr std::chrono::seconds reportEvery{1};

}  // namespace

void LossReporter::SetListener(LossListener listener) {
  const std::lock_guard lock(mutex_);
  if (ending_) return;
  listener_.swap(listener);
  if (listener_ && !thread_.joinable()) thread_ = host::StartServiceThread("veld-losses", [this] { Run(); });
  changed_.notify_all();
}

void LossReporter::AddUrls(const std::vector<std::string>& urls) {
  for (const std::string& url : urls) AddQueue(host::QueueNameOfUrl(url), host::WithoutCredentials(url));
}

void LossReporter::AddQueue(const std::string& queueName, const std::string& url) {
  const std::lock_guard lock(mutex_);
  urls_[queueName] = url;
}

void LossReporter::Note(const std::string& queueName, LossReason reason, ItemCount count,
                        const std::string& why) noexcept {
  try {
    const std::lock_guard lock(mutex_);
    Pending& pending = losses_[{queueName, reason}];
    pending.count += count;
    if (pending.why != why) pending.why = why;
    if (losses_.size() == 1) changed_.notify_all();
  } catch (...) {
    // The ledger has it.
  }
}

void LossReporter::Run() {
  auto next = std::chrono::steady_clock::time_point::min();
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return ending_ || (!losses_.empty() && listener_); });
    next = std::max(next, std::chrono::steady_clock::now() + firstPause);
    changed_.wait_until(lock, next, [this] { return ending_; });
    if (listener_) {
      const Losses losses = std::exchange(losses_, {});
      lock.unlock();
      Report(losses);
      lock.lock();
      next = std::chrono::steady_clock::now() + reportEvery;
    }
    if (ending_ && (losses_.empty() || !listener_)) return;
  }
}

void LossReporter::Report(const Losses& losses) {
  for (const auto& [key, pending] : losses) {
    try {
      std::unique_lock lock(mutex_);
      const auto url = urls_.find(key.first);
      const Loss loss{url == urls_.end() ? "" : url->second, key.second, pending.count, pending.why};
      const LossListener listener = listener_;
      lock.unlock();
      if (listener) listener(loss);
    } catch (...) {
      // The listener's own, or no memory for the call.
    }
  }
}

void LossReporter::End() {
  {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    changed_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void LossReporter::Silence() {
  LossListener last;
  const std::lock_guard lock(mutex_);
  ending_ = true;
  listener_.swap(last);
  changed_.notify_all();
}

}  // namespace veld_report
