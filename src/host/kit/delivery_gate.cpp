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

void DeliveryGate::Attach(HttpClientFactory* http, TimerService* timer) {
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
    if (known != rows_.end()) row = std::move(known->second);
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

milliseconds DeliveryGate::HeldBackFor(const std::string& url, std::int64_t waitingItems) const {
  const std::lock_guard lock(mutex_);
  if (!http_) return milliseconds(0);
  const milliseconds heldBack = http_->HeldBackFor(url);
  const auto found = rows_.find(QueueNameOfUrl(url));
  if (found == rows_.end()) return heldBack;
  const RefusedItems& refused = found->second.refused;
  if (refused.Count() == 0 || std::cmp_less(refused.Count(), waitingItems)) return heldBack;
  return std::max(heldBack, std::chrono::ceil<milliseconds>(refused.NextTrial() - clock_->Now()));
}

std::optional<Allowance> DeliveryGate::MayDeliver(const std::string& queueName) {
  const std::lock_guard lock(mutex_);
  Allowance allowance{.limitBytes = packetLimitBytes_};
  const auto found = rows_.find(queueName);
  if (found == rows_.end() || !http_) return allowance;
  Row& row = found->second;
  const milliseconds heldBack = http_->HeldBackFor(row.url);
  if (heldBack.count() > 0) {
    RunWithin(std::max(heldBack, minPause_));
    return std::nullopt;
  }
  const Clock::TimePoint now = clock_->Now();
  if (now < row.nextStart) {
    RunWithin(std::chrono::ceil<milliseconds>(row.nextStart - now));
    return std::nullopt;
  }
  row.nextStart = now + sendEvery_;
  row.refused.Limit(&allowance, now);
  if (allowance.only) {
    http_->ExpectRefusal(row.url);
  } else if (row.refused.Count() != 0) {
    RunWithin(std::chrono::ceil<milliseconds>(row.refused.NextTrial() - now));
  }
  return allowance;
}

void DeliveryGate::OnPacketEnd(const std::string& queueName, const EndedPacket& packet) {
  const std::lock_guard lock(mutex_);
  const auto found = rows_.find(queueName);
  if (found != rows_.end()) NotePacketEnd(found->second, packet);
  if (packet.moreWaits) RunWithin(packet.delivered ? milliseconds(0) : minPause_);
}

void DeliveryGate::NotePacketEnd(Row& row, const EndedPacket& packet) {
  const std::uint16_t refusal = http_ && packet.items != 0 ? http_->TakeRefusal(row.url) : std::uint16_t{0};
  const bool goesOn = row.refused.OnPacketEnd(packet, refusal, clock_->Now());
  if (http_) http_->NoteStandingBack(row.url, row.refused.Status());
  if (packet.moreWaits || goesOn) row.nextStart = {};
  if (goesOn) RunWithin(http_ ? http_->HeldBackFor(row.url) : milliseconds(0));
}

void DeliveryGate::RunWithin(milliseconds wait) {
  if (timer_) timer_->RunWithin(static_cast<std::uint32_t>(std::min<std::int64_t>(wait.count(), UINT32_MAX)));
}

}  // namespace veld_report::host
