// ItemRestorer: writes items from another file into a store, at the positions that they had there.
//
// To be used within one transaction on the target, whose rows of queues it writes at the end. It holds some
// megabytes at most, however many items and queues there are. One thread at a time.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <string>

#include "host/queue/store_file.h"

namespace veld_report::host {

class ItemRestorer {
 public:
  struct Queue {
    QueueRow row;       // of the target, as it was
    RangeSet covered;   // positions that blocks of the target cover, whether an item is left there or not
    RangeSet restored;  // positions
    ItemCount count;    // of what was restored
    std::uint64_t first = 0;  // position of the first item in `block`
    BlockBuilder block;
  };

  explicit ItemRestorer(StoreFile& target) : target_(target) {}

  // The queue of that name, which is made if there is none. To be called once for a name. Valid as long as
  // the restorer.
  Queue& Open(const std::string& name);
  // Within a queue, positions ascend. False, and nothing happens, if the target has or had that item.
  bool Add(Queue& queue, std::uint64_t position, std::int64_t enqueuedMs, std::span<const std::uint8_t> data);
  // Writes what is held of the queue, and its row. `last`: of the queue in the other file, 0 if that isn't
  // known. Adds `change` to the figures.
  void Close(Queue& queue, std::uint64_t last, bool present, const QueueLedger& change);

 private:
  void Write(Queue& queue);

  StoreFile& target_;
  std::list<Queue> queues_;
  std::size_t held_ = 0;  // bytes in all blocks
};

}  // namespace veld_report::host
