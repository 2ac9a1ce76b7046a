// A host allocator that counts its blocks and can fail the nth of them.
#pragma once

#include <map>
#include <mutex>

#include "tests/fakes/fake_object.h"
#include "types/allocator.h"

namespace veld_report::fakes {

class FakeAllocator final : public FakeObject<zel::IAllocator> {
 public:
  explicit FakeAllocator(FakeWorld& world) : FakeObject(world, "Allocator") {}
  ~FakeAllocator() override;

  void* Allocate(std::uint64_t size) override;
  zel::ResultCode ReservedAllocatorOperation() override;
  void Free(void* memory) override;

  // The nth allocation from here on answers null, once.
  void FailNth(int nth);
  int Allocations() const;
  std::uint64_t LiveBlocks() const;

 private:
  mutable std::mutex lock_;
  std::map<void*, std::uint64_t> blocks_;
  int allocations_ = 0;
  int failAt_ = 0;
};

}  // namespace veld_report::fakes
