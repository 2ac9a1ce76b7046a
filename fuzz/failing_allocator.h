// A host allocator that can be made to fail and counts its live blocks. Its work done, each call that gives
// something back throws: whoever calls it goes on.
#pragma once

#include <cstdlib>
#include <functional>
#include <stdexcept>

#include "fuzz/input.h"
#include "host/base/host_object.h"
#include "types/allocator.h"

namespace veld_report::fuzz {

class FailingAllocator final : public host::HostObject<zel::IAllocator> {
 public:
  static constexpr std::uint64_t maxBytes = 1 << 30;  // beyond it a sanitizer would end the process
  bool fail = false;
  std::function<void(const void*)> onFree = [](const void*) {};

  void* Allocate(std::uint64_t size) override {
    if (fail || size > maxBytes) return nullptr;
    void* const memory = std::malloc(size);
    live_ += memory ? 1 : 0;
    return memory;
  }
  zel::ResultCode ReservedAllocatorOperation() override { return zel::eNotImplemented; }
  void Free(void* memory) override {
    --live_;
    onFree(memory);
    std::free(memory);
    throw std::runtime_error("Free");
  }
  std::uint32_t Release() override {
    HostObject::Release();
    throw std::runtime_error("Release");
  }

 private:
  ~FailingAllocator() override { Require(live_ == 0, "a block wasn't given back to its allocator"); }

  int live_ = 0;
};

}  // namespace veld_report::fuzz
