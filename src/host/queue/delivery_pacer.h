// DeliveryPacer decides when, and how much at a time, the readers of a queue service hand out for sending.
//
// A sender that reads a queue to its end and sends every packet of it can't be slowed down by its HTTP client
// without a failed request for each attempt. Its reader can do that at no cost: a queue that has nothing to
// hand out is skipped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace veld_report::host {

// What a reader may hand out.
struct Allowance {
  // Limits for the items that it has handed out and that are neither acknowledged nor given back. 0: no
  // limit.
  std::uint64_t limitBytes = 0;  // a larger item is handed out alone
  std::size_t limitItems = 0;
  std::optional<std::uint64_t> only{};   // the token of the one item that it hands out
  std::vector<std::uint64_t> skipped{};  // tokens that it doesn't hand out, ascending
};

// What a reader had handed out at once, when all of it has been acknowledged or, if not `delivered`, given
// back.
struct EndedPacket {
  std::uint64_t first = 0;  // token of its first item
  std::size_t items = 0;    // 0: the item of Allowance::only doesn't exist any more
  bool delivered = false;
  // The reader stopped at its limit, or a later one found this packet still on the way.
  bool moreWaits = false;
};

// Threads: any. Called with a lock of the store held, so it must not call the queue service.
class DeliveryPacer {
 public:
  virtual ~DeliveryPacer() = default;
  // Asked once for each reader, when it finds its first item. Without a value the reader hands out nothing.
  virtual std::optional<Allowance> MayDeliver(const std::string& queueName) = 0;
  // Not called for a delivered packet with nothing waiting, unless the reader was limited in items.
  virtual void OnPacketEnd(const std::string& queueName, const EndedPacket& packet) = 0;
};

}  // namespace veld_report::host
