#include "tests/fakes/fake_memory.h"

#include <cstdlib>
#include <cstring>

namespace veld_report::fakes {

FakeAllocator::~FakeAllocator() {
  for (const auto& block : blocks_) std::free(block.first);
}

void* FakeAllocator::Allocate(std::uint64_t size) {
  Use();
  std::lock_guard guard(lock_);
  ++allocations_;
  if (failAt_ > 0 && --failAt_ == 0) return nullptr;
  void* memory = std::malloc(size ? size : 1);
  // Nobody may count on fresh memory being zero.
  std::memset(memory, 0xcd, size);
  blocks_[memory] = size;
  return memory;
}

zel::ResultCode FakeAllocator::ReservedAllocatorOperation() {
  Fault("Allocator: the reserved operation was called");
  return zel::eNotImplemented;
}

void FakeAllocator::Free(void* memory) {
  Use();
  std::lock_guard guard(lock_);
  const auto found = blocks_.find(memory);
  if (found == blocks_.end()) {
    Fault("Allocator: Free of a block that isn't out");
    return;
  }
  std::memset(memory, 0xdd, found->second);
  std::free(memory);
  blocks_.erase(found);
}

void FakeAllocator::FailNth(int nth) {
  std::lock_guard guard(lock_);
  failAt_ = nth;
}

int FakeAllocator::Allocations() const {
  std::lock_guard guard(lock_);
  return allocations_;
}

std::uint64_t FakeAllocator::LiveBlocks() const {
  std::lock_guard guard(lock_);
  return blocks_.size();
}

}  // namespace veld_report::fakes
