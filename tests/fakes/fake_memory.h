// A host allocator that counts its blocks and can fail the nth of them.
#pragma once

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>

#include "tests/fakes/fake_object.h"
#include "types/allocator.h"

namespace veld_report::fakes {

class FakeAllocator final : public FakeObject<zel::IAllocator> {
 public:
  explicit FakeAllocator(FakeWorld& world) : FakeObject(world, "Allocator") {}
  ~FakeAllocator() override {
    if (!blocks_.empty()) Fault("Allocator: blocks are out");
    for (const auto& block : blocks_) std::free(block.first);
  }

  // Gives null too where the program's own heap has run dry.
  void* Allocate(std::uint64_t size) override {
    Use();
    if (world().script.Enter("Allocate") != zel::sOk) return nullptr;
    const std::lock_guard guard(lock_);
    ++allocations_;
    if (failAt_ == 1 && onwards_) return nullptr;
    if (failAt_ > 0 && --failAt_ == 0) return nullptr;
    void* memory = std::malloc(size ? size : 1);
    if (!memory) return nullptr;
    // Nobody may count on fresh memory being zero.
    std::memset(memory, 0xcd, size);
    try {
      blocks_[memory] = size;
      return memory;
    } catch (const std::bad_alloc&) {
      std::free(memory);
      return nullptr;
    }
  }
  zel::ResultCode ReservedAllocatorOperation() override { return Reserved(); }
  void Free(void* memory) override {
    Use();
    const std::lock_guard guard(lock_);
    const auto found = blocks_.find(memory);
    if (found == blocks_.end()) return Fault("Allocator: Free of a block that isn't out");
    std::memset(memory, 0xdd, found->second);
    std::free(memory);
    blocks_.erase(found);
  }

  // The nth allocation from here on answers null; with `onwards` all behind it do too. 0: none does.
  void FailNth(int nth, bool onwards = false) {
    onwards_ = onwards;
    failAt_ = nth;
  }
  int Allocations() const { return allocations_; }
  std::uint64_t LiveBlocks() const {
    const std::lock_guard guard(lock_);
    return blocks_.size();
  }

 private:
  mutable std::mutex lock_;
  std::map<void*, std::uint64_t> blocks_;
  std::atomic<int> allocations_ = 0;
  std::atomic<int> failAt_ = 0;
  std::atomic<bool> onwards_ = false;
};

}  // namespace veld_report::fakes
