// MemoryMeter limits what is in memory, between submission and store. Its user chooses the unit: the reporter
// counts records, a program with records of any size counts bytes.
//
// The sender's memory has no limit of its own, and a cycle empties it before it does anything else. So a
// producer that is faster than the disk would keep a cycle from ending, and with it a close.
#pragma once

#include <cstdint>
#include <mutex>

#include "host/kit/host_kit.h"

namespace veld_report::host {

// Threads: any. The kit must outlive it.
class MemoryMeter {
 public:
  MemoryMeter(HostKit& kit, std::uint64_t limit) : kit_(kit), limit_(limit) {}

  // Starts the next cycle early if memory is filling up. Throws std::bad_alloc.
  bool HasRoom();
  // Called once the sender has the record.
  void Add(std::uint64_t amount = 1);
  // An upper bound: what a cycle moves counts until it has emptied the memory, and what is submitted
  // meanwhile until the next cycle has.
  std::uint64_t InMemory();

 private:
  void Refresh();

  HostKit& kit_;
  const std::uint64_t limit_;

  std::mutex mutex_;  // guards the members below; held across calls of the kit
  std::uint64_t questions_ = 0;
  std::uint64_t submitted_ = 0;
  std::uint64_t moved_ = 0;  // of this, what is known to have left memory
  // A cycle after the first `runsAtMark_` finds in memory what was submitted up to `mark_`, and moves it.
  std::uint64_t mark_ = 0;
  std::uint64_t runsAtMark_ = 0;
};

}  // namespace veld_report::host
