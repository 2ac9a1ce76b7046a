// Pacer: tells how much may be submitted to the module just now.
//
// The module takes everything: its deque in memory has no limit, and a queue that is full drops its oldest
// items for new ones. So a reader of a large file that just went on would fill the memory, and would push its
// own first records out of the queue. The pacer compares what was submitted with what the store's ledger says
// has arrived, and stops the reader before either happens.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "host/queue/queue_ledger.h"

namespace veld_report::app {

using Ledgers = std::map<std::string, host::QueueLedger>;

// One thread at a time.
class Pacer {
 public:
  struct Limits {
    std::int64_t memoryItems = 100'000;               // submitted and in no queue yet, counted once a queue
    std::int64_t memoryBytes = 64 << 20;              // the same
    std::int64_t queueBytes = std::int64_t{1} << 30;  // the limit of each queue
  };

  // `targets`: the queues that each record goes to, with how many times it goes there. `before`: the ledgers
  // before the first record.
  Pacer(const Limits& limits, std::map<std::string, std::int64_t> targets, const Ledgers& before);

  // Whether a record of that size may be submitted, by what the last Refresh saw.
  bool MaySubmit(std::int64_t bytes) const { return itemsLeft_ > 0 && bytes <= bytesLeft_ && HasRoom(bytes); }
  // Whether the queues alone have room for it. Room comes from deliveries, memory from any cycle.
  bool HasRoom(std::int64_t bytes) const { return bytes <= queueBytesLeft_; }
  // Whether it can ever be: a record that is larger than a queue would push everything else out of it.
  bool CanEverFit(std::int64_t bytes) const;
  void Submitted(std::int64_t bytes);
  void Refresh(const Ledgers& ledgers);

  // Submitted and in no queue yet when Refresh was called last, over all queues.
  std::int64_t ItemsInMemory() const { return itemsInMemory_; }

 private:
  const Limits limits_;
  const std::map<std::string, std::int64_t> targets_;
  std::map<std::string, host::ItemCount> acceptedBefore_;
  host::ItemCount submitted_;
  std::int64_t itemsLeft_ = 0;
  std::int64_t bytesLeft_ = 0;
  std::int64_t queueBytesLeft_ = 0;
  std::int64_t itemsInMemory_ = 0;
};

}  // namespace veld_report::app
