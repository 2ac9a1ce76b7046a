// HeapAllocator: the process heap as a service of the host, with a count of live blocks.
//
// It only differs from malloc in the count, by which a test or a support engineer can see that nothing of the
// module is left. Its blocks have a header, so they must be freed with Free and not with free().
#pragma once

#include <atomic>
#include <cstdint>

#include "host/base/host_object.h"
#include "types/allocator.h"

namespace veld_report::host {

// Threads: any. Whoever owns a block holds a reference to the allocator.
class HeapAllocator final : public HostObject<zel::IAllocator> {
 public:
  // Returns `size` bytes aligned for any type, or null. A size of 0 also gives a block.
  void* Allocate(std::uint64_t size) override;
  // Returns 0x80000043 "Not implemented".
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  // Does nothing for null.
  void Free(void* memory) override;

  // Live blocks, by their requested sizes. These are snapshots: the two may differ by a call in progress. The
  // calls of a thread that was joined are in them, and no other order is needed.
  std::uint64_t LiveBytes() const { return liveBytes_.load(std::memory_order_relaxed); }
  std::uint64_t LiveBlocks() const { return liveBlocks_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> liveBytes_{0};
  std::atomic<std::uint64_t> liveBlocks_{0};
};

}  // namespace veld_report::host
