#include "host/kit/refused_items.h"

#include <algorithm>

namespace veld_report::host {
namespace {

using std::chrono::milliseconds;

// Between two trials of items that stand back. It doubles with each refusal.
constexpr milliseconds firstPause{5000};
constexpr milliseconds maxPause{5 * 60 * 1000};

}  // namespace

void RefusedItems::Limit(Allowance* allowance, Clock::TimePoint now) const {
  if (!tokens_.empty() && nextTrial_ <= now) {
    const auto next = std::ranges::upper_bound(tokens_, lastTried_);
    allowance->only = next == tokens_.end() ? tokens_.front() : *next;
    return;
  }
  allowance->limitItems = LimitItems();
  allowance->skipped = tokens_;
}

bool RefusedItems::OnPacketEnd(const EndedPacket& packet, std::uint16_t refusal, Clock::TimePoint now) {
  const auto place = std::ranges::lower_bound(tokens_, packet.first);
  if (place == tokens_.end() || *place != packet.first) {
    if (packet.delivered) Grow(packet.items);
    return packet.items == 0 || (refusal != 0 && Divide(packet, refusal, now));
  }
  lastTried_ = packet.first;
  if (packet.delivered) pause_ = firstPause;
  if (packet.delivered || packet.items == 0) {
    // Whatever was wrong may have been fixed for the others too.
    tokens_.erase(place);
    nextTrial_ = now;
    return true;
  }
  if (refusal != 0) {
    status_ = refusal;
    pause_ = std::min(2 * pause_, maxPause);
  }
  nextTrial_ = now + pause_;
  return refusal != 0;
}

bool RefusedItems::Divide(const EndedPacket& packet, std::uint16_t refusal, Clock::TimePoint now) {
  suspects_ = packet.items > 1 ? packet.items : 0;
  if (suspects_ != 0) return true;
  // Where one is bad, the next ones often are.
  limitItems_ = 1;
  if (tokens_.size() == maxItems) return false;
  if (tokens_.empty()) {
    pause_ = firstPause;
    nextTrial_ = now + pause_;
  }
  tokens_.insert(std::ranges::lower_bound(tokens_, packet.first), packet.first);
  status_ = refusal;
  return true;
}

void RefusedItems::Grow(std::size_t delivered) {
  const std::size_t limit = LimitItems();
  if (suspects_ > delivered) {
    suspects_ -= delivered;
    return;
  }
  // A packet below the limit had other reasons to end, so the limit limits nothing any more.
  limitItems_ = delivered < limit ? 0 : 2 * limit;
  suspects_ = 0;
}

}  // namespace veld_report::host
