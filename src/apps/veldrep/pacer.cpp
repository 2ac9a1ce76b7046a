#include "apps/veldrep/pacer.h"

#include <algorithm>
#include <utility>

namespace veld_report::app {
namespace {

const host::QueueLedger& LedgerOf(const Ledgers& ledgers, const std::string& queue) {
  static const host::QueueLedger none;
  const auto found = ledgers.find(queue);
  return found == ledgers.end() ? none : found->second;
}

}  // namespace

Pacer::Pacer(const Limits& limits, std::map<std::string, std::int64_t> targets, const Ledgers& before)
    : limits_(limits), targets_(std::move(targets)) {
  for (const auto& [queue, times] : targets_) acceptedBefore_[queue] = LedgerOf(before, queue).accepted;
  Refresh(before);
}

bool Pacer::CanEverFit(std::int64_t bytes) const {
  return std::all_of(targets_.begin(), targets_.end(),
                     [&](const auto& target) { return bytes * target.second <= limits_.queueBytes; });
}

void Pacer::Submitted(std::int64_t bytes) {
  submitted_ += {1, bytes};
  --itemsLeft_;
  bytesLeft_ -= bytes;
  queueBytesLeft_ -= bytes;
}

void Pacer::Refresh(const Ledgers& ledgers) {
  itemsLeft_ = limits_.memoryItems;
  bytesLeft_ = limits_.memoryBytes;
  queueBytesLeft_ = limits_.queueBytes;
  itemsInMemory_ = 0;
  for (const auto& [queue, times] : targets_) {
    const host::QueueLedger& ledger = LedgerOf(ledgers, queue);
    const host::ItemCount& before = acceptedBefore_[queue];
    const std::int64_t items = submitted_.items * times - (ledger.accepted.items - before.items);
    const std::int64_t bytes = submitted_.bytes * times - (ledger.accepted.bytes - before.bytes);
    itemsInMemory_ += items;
    itemsLeft_ = std::min(itemsLeft_, (limits_.memoryItems - items) / times);
    bytesLeft_ = std::min(bytesLeft_, (limits_.memoryBytes - bytes) / times);
    // What is in memory will stand in the queue besides what waits there.
    queueBytesLeft_ = std::min(queueBytesLeft_, (limits_.queueBytes - ledger.waiting.bytes - bytes) / times);
  }
}

}  // namespace veld_report::app
