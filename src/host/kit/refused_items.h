// RefusedItems finds the items of one queue for which a server refuses whole packets.
//
// A server that refuses a packet because of its content refuses it each time. Without help the one bad record
// in it would hold up the queue until it is evicted. So a refused packet is divided: half of it is sent, and
// so on, until the bad item has been refused by itself. It stands back: everything after it goes first. From
// time to time one item that stands back is tried again, by itself. Nothing is dropped.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/base/clock.h"
#include "host/queue/delivery_pacer.h"

namespace veld_report::host {

// One thread at a time; delivery_gate.h locks.
class RefusedItems {
 public:
  // Beyond this number a refused item holds up the queue.
  static constexpr std::size_t maxItems = 100;

  void Limit(Allowance* allowance, Clock::TimePoint now) const;
  // `refusal`: the status with which the server refused the packet's content; 0: it didn't.
  // True if the next packet of the queue is another one, so it needn't wait for long.
  bool OnPacketEnd(const EndedPacket& packet, std::uint16_t refusal, Clock::TimePoint now);

  std::size_t Count() const { return tokens_.size(); }
  // Of the last item that was refused by itself; 0 if none stands back.
  std::uint16_t Status() const { return tokens_.empty() ? std::uint16_t{0} : status_; }
  // When an item that stands back is tried again. Only valid if there is one.
  Clock::TimePoint NextTrial() const { return nextTrial_; }

 private:
  bool Divide(const EndedPacket& packet, std::uint16_t refusal, Clock::TimePoint now);
  void Grow(std::size_t delivered);
  std::size_t LimitItems() const { return suspects_ != 0 ? (suspects_ + 1) / 2 : limitItems_; }

  std::vector<std::uint64_t> tokens_;  // of the items that stand back, ascending
  std::uint16_t status_ = 0;
  std::uint64_t lastTried_ = 0;
  std::chrono::milliseconds pause_{0};
  Clock::TimePoint nextTrial_{};

  // At least one of the next so many items must be a bad one. 0: nothing is known about them.
  std::size_t suspects_ = 0;
  std::size_t limitItems_ = 0;  // of a packet without suspects; 0: none
};

}  // namespace veld_report::host
