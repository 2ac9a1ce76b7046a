// The key of an item in a store: its queue's id and its position in the queue. Keys are an item's tokens.
//
// Positions count from 1, in the order in which the items were written, and are never used again. So the keys
// of a queue's items are one range, in their order.
#pragma once

#include <cstdint>

namespace veld_report::host {

inline constexpr int positionBits = 43;
inline constexpr std::uint64_t maxPosition = (std::uint64_t{1} << positionBits) - 1;
inline constexpr std::int64_t maxQueueId = (std::int64_t{1} << (63 - positionBits)) - 1;

constexpr std::uint64_t KeyOf(std::int64_t queueId, std::uint64_t position) {
  return static_cast<std::uint64_t>(queueId) << positionBits | position;
}
constexpr std::int64_t QueueOf(std::uint64_t key) { return static_cast<std::int64_t>(key >> positionBits); }
constexpr std::uint64_t PositionOf(std::uint64_t key) { return key & maxPosition; }

}  // namespace veld_report::host
