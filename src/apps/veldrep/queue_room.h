// QueueRoom knows whether the queues have room for another record.
//
// The module accepts everything, and a full queue drops its oldest items for new ones. So reading a large
// file without pause would push its own first records out of the queue. This compares what was submitted with
// what the store's ledger says has arrived. host::MemoryMeter limits what is in memory meanwhile.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "veld_report/queue_ledger.h"

namespace veld_report::app {

using Ledgers = std::map<std::string, QueueLedger>;

// One thread at a time.
class QueueRoom {
 public:
  // `targets`: the queues of each record, with how many times it goes there. `before`: the ledgers before the
  // first record.
  QueueRoom(std::int64_t limitBytes, std::map<std::string, std::int64_t> targets, const Ledgers& before);

  // As of the last Refresh.
  bool Has(std::int64_t bytes) const { return bytes <= bytesLeft_; }
  // A record that is larger than a queue would push everything else out of it.
  bool CanEverFit(std::int64_t bytes) const;
  void Submitted(std::int64_t bytes);
  void Refresh(const Ledgers& ledgers);

  // The items that were in no queue yet at the last Refresh, over all queues.
  std::int64_t ItemsInMemory() const { return itemsInMemory_; }

 private:
  const std::int64_t limitBytes_;
  const std::map<std::string, std::int64_t> targets_;
  std::map<std::string, ItemCount> acceptedBefore_;
  ItemCount submitted_;
  std::int64_t bytesLeft_ = 0;
  std::int64_t itemsInMemory_ = 0;
};

}  // namespace veld_report::app
