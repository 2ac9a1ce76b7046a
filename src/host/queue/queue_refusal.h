// What a store remembers of the calling thread: its number, and whether its last call was a refused Push.
// How the two tell an eviction from a delivery is told in queue_store.h.
#pragma once

#include <cstdint>

#include "host/queue/queue_writer.h"

namespace veld_report::host {

// Never gives a number twice.
std::uint64_t NextNumber();

// A number of the calling thread that no other thread ever has, unlike std::thread::id.
std::uint64_t ThreadNumber();

struct Refusal {
  std::uint64_t store = 0;  // a number of NextNumber; 0: the last call wasn't refused
  const QueueState* queue = nullptr;
  ItemCount item;
};

void RememberRefusal(const Refusal& refusal);
// Every operation of a store calls it first, so that only the very next call sees a refusal.
Refusal TakeRefusal();

}  // namespace veld_report::host
