#include "apps/veldrep/queue_room.h"

#include <algorithm>
#include <utility>

namespace veld_report::app {
namespace {

const QueueLedger& LedgerOf(const Ledgers& ledgers, const std::string& queue) {
  static const QueueLedger none;
  const auto found = ledgers.find(queue);
  return found == ledgers.end() ? none : found->second;
}

}  // namespace

QueueRoom::QueueRoom(std::int64_t limitBytes, std::map<std::string, std::int64_t> targets,
                     const Ledgers& before)
    : limitBytes_(limitBytes), targets_(std::move(targets)) {
  for (const auto& [queue, times] : targets_) acceptedBefore_[queue] = LedgerOf(before, queue).accepted;
  Refresh(before);
}

bool QueueRoom::CanEverFit(std::int64_t bytes) const {
  return std::ranges::all_of(targets_,
                             [&](const auto& target) { return bytes * target.second <= limitBytes_; });
}

void QueueRoom::Submitted(std::int64_t bytes) {
  submitted_ += {1, bytes};
  bytesLeft_ -= bytes;
}

void QueueRoom::Refresh(const Ledgers& ledgers) {
  bytesLeft_ = limitBytes_;
  itemsInMemory_ = 0;
  for (const auto& [queue, times] : targets_) {
    const QueueLedger& ledger = LedgerOf(ledgers, queue);
    const ItemCount& before = acceptedBefore_[queue];
    itemsInMemory_ += submitted_.items * times - (ledger.accepted.items - before.items);
    // What is in memory will be in the queue in addition to what is waiting there.
    const std::int64_t inMemory = submitted_.bytes * times - (ledger.accepted.bytes - before.bytes);
    bytesLeft_ = std::min(bytesLeft_, (limitBytes_ - ledger.waiting.bytes - inMemory) / times);
  }
}

}  // namespace veld_report::app
