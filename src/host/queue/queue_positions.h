// QueuePositions: which of a queue's positions (item_key.h) hold an item, as the file says.
#pragma once

#include <cstdint>

#include "host/queue/range_set.h"

namespace veld_report::host {

struct QueuePositions {
  std::uint64_t last = 0;   // of the youngest item that there ever was
  std::uint64_t front = 0;  // nothing is left up to here
  RangeSet gone;            // beyond the front

  // The oldest item from `from` on; `last` + 1 if there is none.
  std::uint64_t NextItem(std::uint64_t from) const {
    const std::uint64_t next = gone.NextOutside(from > front ? from : front + 1);
    return next > last ? last + 1 : next;
  }
  bool HasItem(std::uint64_t position) const {
    return position > front && position <= last && !gone.Contains(position);
  }
  void Remove(const RangeSet& positions) {
    gone.Add(positions);
    front = gone.NextOutside(front + 1) - 1;
    gone.RemoveUpTo(front);
  }
  void RemoveAll() {
    front = last;
    gone.Clear();
  }
};

}  // namespace veld_report::host
