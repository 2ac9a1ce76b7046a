// The figures that a store keeps for each queue name: what became of the queue's items.
//
// This holds at any time, in memory and in the file: every item that was offered is accounted for exactly
// once.
//   accepted = delivered + evicted + rejected + removed + waiting        (in items, and in bytes)
// A refused item counts as accepted and rejected, so that losses show on both sides. The other figures aren't
// part of this sum: `returned` counts claims that were given back, whose items are still waiting; `expired`
// is part of evicted and `damaged` part of removed.
#pragma once

#include <array>
#include <cstdint>

namespace veld_report {

struct ItemCount {
  std::int64_t items = 0;
  std::int64_t bytes = 0;

  ItemCount& operator+=(const ItemCount& other) {
    items += other.items;
    bytes += other.bytes;
    return *this;
  }
  ItemCount operator-() const { return {-items, -bytes}; }
  bool operator==(const ItemCount&) const = default;
};

struct QueueLedger {
  ItemCount accepted{};   // offered by Push
  ItemCount delivered{};  // acknowledged by a reader
  ItemCount evicted{};    // dropped to make room, or for their age
  ItemCount rejected{};   // Push failed, and no retry stored the same item
  ItemCount removed{};    // removed with their queue, or damaged
  ItemCount waiting{};    // in the queue
  ItemCount returned{};   // claims given back by ReturnItem
  ItemCount expired{};    // of evicted: dropped for their age
  ItemCount damaged{};    // of removed: in a damaged file and no longer readable

  static constexpr std::size_t figures = 9;
  std::array<ItemCount*, figures> All() {
    return {&accepted, &delivered, &evicted, &rejected, &removed, &waiting, &returned, &expired, &damaged};
  }
  std::array<const ItemCount*, figures> All() const {
    return {&accepted, &delivered, &evicted, &rejected, &removed, &waiting, &returned, &expired, &damaged};
  }

  QueueLedger& operator+=(const QueueLedger& other) {
    const auto own = All();
    const auto others = other.All();
    for (std::size_t i = 0; i < figures; ++i) *own[i] += *others[i];
    return *this;
  }
  QueueLedger operator-() const {
    QueueLedger result;
    const auto results = result.All();
    const auto own = All();
    for (std::size_t i = 0; i < figures; ++i) *results[i] = -*own[i];
    return result;
  }
  bool operator==(const QueueLedger&) const = default;

  // Records that an item leaves the queue, or the reverse for a negative count. `kind`: delivered, evicted or
  // expired.
  void Leave(ItemCount QueueLedger::*kind, ItemCount item) {
    this->*kind += item;
    if (kind == &QueueLedger::expired) evicted += item;
    waiting += -item;
  }
  bool IsBalanced() const {
    ItemCount sum = delivered;
    for (const ItemCount* part : {&evicted, &rejected, &removed, &waiting}) sum += *part;
    return sum == accepted;
  }
};

}  // namespace veld_report
