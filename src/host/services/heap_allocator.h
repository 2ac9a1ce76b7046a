// HeapAllocator, the process heap as a service of the host, with an account of what is out.
//
// It differs from malloc in the account alone: a test or a support engineer can see that nothing of the
// module is left. Its blocks carry a word of their own, so they go back through Free and not through free().
#pragma once

#include <atomic>
#include <cstdint>

#include "host/base/host_object.h"
#include "types/allocator.h"

namespace veld_report::host {

// Threads: any. Must outlive no block: each block's owner holds a reference on the allocator.
class HeapAllocator final : public HostObject<zel::IAllocator> {
 public:
  // `size` bytes aligned for any type, or null. A size of 0 gives a block too.
  void* Allocate(std::uint64_t size) override;
  // Answers 0x80000043 "Not implemented".
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  // Null is allowed and does nothing.
  void Free(void* memory) override;

  // What is out, by the sizes that were asked for. Snapshots: the two may differ by a call in progress.
  std::uint64_t LiveBytes() const { return liveBytes_.load(std::memory_order_relaxed); }
  std::uint64_t LiveBlocks() const { return liveBlocks_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> liveBytes_{0};
  std::atomic<std::uint64_t> liveBlocks_{0};
};

}  // namespace veld_report::host
