// DeliveryPacer decides when, and how much at a time, the readers of a queue service hand out for sending.
//
// A sender that reads a queue to its end and sends every packet of it can't be slowed down by its HTTP client
// without a failed request for each attempt. Its reader can do that at no cost: a queue that has nothing to
// hand out is skipped.
#pragma once

#include <cstdint>
#include <string>

namespace veld_report::host {

// Threads: any. Called with a lock of the store held, so it must not call the queue service.
class DeliveryPacer {
 public:
  virtual ~DeliveryPacer() = default;
  // Asked once for each reader, when it finds its first item. If false, the reader hands out nothing.
  virtual bool MayDeliver(const std::string& queueName) = 0;
  // The maximum for the items that a reader has handed out and that are neither acknowledged nor given back,
  // in bytes. A larger item is handed out alone. 0: no limit.
  virtual std::uint64_t PacketLimitBytes() const = 0;
  // A reader stopped at that limit, or a later one found its packet still on the way. Since then all that it
  // had handed out has been acknowledged or, if `delivered` is false, given back.
  virtual void OnMoreWaits(const std::string& queueName, bool delivered) = 0;
};

}  // namespace veld_report::host
