#include "host/kit/delivery_gate.h"

#include <algorithm>
#include <utility>

#include "host/services/queue_name.h"

namespace veld_report::host {
namespace {

using std::chrono::milliseconds;

// The waits of many urls end at many times. One cycle serves all that end within this time.
constexpr milliseconds maxPause{5000};

}  // namespace

DeliveryGate::DeliveryGate(std::shared_ptr<Clock> clock)
    : clock_(clock ? std::move(clock) : std::make_shared<SystemClock>()) {}

void DeliveryGate::Attach(const HttpClientFactory* http, TimerService* timer) {
  const std::lock_guard lock(mutex_);
  http_ = http;
  timer_ = timer;
}

void DeliveryGate::Detach() { Attach(nullptr, nullptr); }

void DeliveryGate::SetSettings(const KitSettings& settings) {
  std::map<std::string, Row> rows;
  for (const KitEndpoint& endpoint : settings.endpoints) {
    rows.try_emplace(QueueNameOfUrl(endpoint.url), Row{endpoint.url});
  }
  const std::lock_guard lock(mutex_);
  for (auto& [name, row] : rows) {
    const auto known = rows_.find(name);
    if (known != rows_.end()) row.nextStart = known->second.nextStart;
  }
  rows_.swap(rows);
  packetLimitBytes_ = std::uint64_t{settings.packetLimitKb} << 10;
  sendEvery_ = std::chrono::seconds(settings.sendEveryS);
  minPause_ = std::min<milliseconds>(std::chrono::seconds(settings.sendTimeoutS), maxPause);
}

void DeliveryGate::SkipInterval() {
  const std::lock_guard lock(mutex_);
  for (auto& [name, row] : rows_) row.nextStart = {};
}

void DeliveryGate::OnBackoff() {
  const std::lock_guard lock(mutex_);
  RunWithin(minPause_);
}

bool DeliveryGate::MayDeliver(const std::string& queueName) {
  const std::lock_guard lock(mutex_);
  const auto found = rows_.find(queueName);
  if (found == rows_.end() || !http_) return true;
  Row& row = found->second;
  const milliseconds heldBack = http_->HeldBackFor(row.url);
  if (heldBack.count() > 0) {
    RunWithin(std::max(heldBack, minPause_));
    return false;
  }
  const Clock::TimePoint now = clock_->Now();
  if (now < row.nextStart) {
    RunWithin(std::chrono::ceil<milliseconds>(row.nextStart - now));
    return false;
  }
  row.nextStart = now + sendEvery_;
  return true;
}

std::uint64_t DeliveryGate::PacketLimitBytes() const {
  const std::lock_guard lock(mutex_);
  return packetLimitBytes_;
}

void DeliveryGate::OnMoreWaits(const std::string& queueName, bool delivered) {
  const std::lock_guard lock(mutex_);
  const auto found = rows_.find(queueName);
  if (found != rows_.end()) found->second.nextStart = {};
  RunWithin(delivered ? milliseconds(0) : minPause_);
}

void DeliveryGate::RunWithin(milliseconds wait) {
  if (timer_) timer_->RunWithin(static_cast<std::uint32_t>(std::min<std::int64_t>(wait.count(), UINT32_MAX)));
}

}  // namespace veld_report::host
