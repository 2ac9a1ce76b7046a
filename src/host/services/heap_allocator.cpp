#include "host/services/heap_allocator.h"

#include <cstddef>
#include <cstdlib>
#include <limits>

namespace veld_report::host {
namespace {

// Precedes each block and keeps the alignment of what follows.
struct alignas(std::max_align_t) BlockHeader {
  std::uint64_t size;
};

}  // namespace

void* HeapAllocator::Allocate(std::uint64_t size) {
  if (size > std::numeric_limits<std::uint64_t>::max() - sizeof(BlockHeader)) return nullptr;
  void* const memory = std::malloc(sizeof(BlockHeader) + size);
  if (!memory) return nullptr;
  auto* const header = new (memory) BlockHeader{size};
  liveBytes_.fetch_add(size, std::memory_order_relaxed);
  liveBlocks_.fetch_add(1, std::memory_order_relaxed);
  return header + 1;
}

void HeapAllocator::Free(void* memory) {
  if (!memory) return;
  BlockHeader* const header = static_cast<BlockHeader*>(memory) - 1;
  liveBytes_.fetch_sub(header->size, std::memory_order_relaxed);
  liveBlocks_.fetch_sub(1, std::memory_order_relaxed);
  std::free(header);
}

}  // namespace veld_report::host
