// MemoryMeter: how many records stand in memory at most, between submission and store.
//
// The sender's memory has no limit of its own, and a cycle empties it before it does anything else, so a
// producer that is faster than the disk would keep a cycle, and with it a close, from ever ending.
#pragma once

#include <cstdint>
#include <mutex>

#include "host/kit/host_kit.h"

namespace veld_report {

// Threads: any. The kit must outlive it.
class MemoryMeter {
 public:
  MemoryMeter(host::HostKit& kit, std::uint64_t limit) : kit_(kit), limit_(limit) {}

  // Has the next cycle begin early where memory fills up. Throws std::bad_alloc.
  bool HasRoom();
  // To be called once the sender has the record.
  void Add();
  // An upper bound: what a cycle has moved counts until this cycle has emptied the memory, and what was
  // submitted meanwhile until the next one has.
  std::uint64_t InMemory();

 private:
  void Refresh();

  host::HostKit& kit_;
  const std::uint64_t limit_;

  std::mutex mutex_;  // guards the rest; held across questions to the kit
  std::uint64_t submitted_ = 0;
  std::uint64_t moved_ = 0;  // of those, how many are known to have left memory
  // A cycle that is not among the first `runsAtMark_` finds the first `mark_` records in memory and moves
  // them.
  std::uint64_t mark_ = 0;
  std::uint64_t runsAtMark_ = 0;
};

}  // namespace veld_report
