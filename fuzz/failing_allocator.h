// A host allocator that fails when it is told to and counts what it has given out.
#pragma once

#include <cstdlib>

#include "fuzz/input.h"
#include "host/base/host_object.h"
#include "types/allocator.h"

namespace veld_report::fuzz {

class FailingAllocator final : public host::HostObject<zel::IAllocator> {
 public:
  static constexpr std::uint64_t mostBytes = 1 << 30;  // beyond it a sanitizer would end the process
  bool fail = false;

  void* Allocate(std::uint64_t size) override {
    if (fail || size > mostBytes) return nullptr;
    void* const memory = std::malloc(size);
    live_ += memory ? 1 : 0;
    return memory;
  }
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void* memory) override {
    --live_;
    std::free(memory);
  }

 private:
  ~FailingAllocator() override { Require(live_ == 0, "a block wasn't given back to its allocator"); }

  int live_ = 0;
};

}  // namespace veld_report::fuzz
