// Memory of framework objects: the host's zel::IAllocator, and zel::Allocator, which containers hold.
//
// The rule: memory comes from the allocator that the host gave to the owning object; if there is none, from
// the process heap (types/platform/process_heap.h). A block is freed where it was allocated. Since the
// process heap is the same on both sides of the boundary, the host may fill a container that has no
// allocator, and the module frees it.
#pragma once

#include <cstdint>
#include <new>

#include "types/object.h"
#include "types/platform/process_heap.h"
#include "types/ref.h"

namespace zel {

// The host's allocator. Called from any thread.
class IAllocator : public IObject {
 public:
  static constexpr InterfaceId iid = 0x9cca5603;
  // Returns `size` bytes, aligned for any type, or null.
  virtual void* Allocate(std::uint64_t size) = 0;
  // Never called by the module.
  virtual ResultCode ReservedAllocatorOperation() = 0;
  // Frees what Allocate of the same allocator returned.
  virtual void Free(void* memory) = 0;

 protected:
  ~IAllocator() = default;
};

// Returns `size` bytes from `allocator`, or from the process heap if that is null. Throws std::bad_alloc.
inline void* AllocateMemory(IAllocator* allocator, std::uint64_t size) {
  void* memory = allocator ? allocator->Allocate(size) : platform::AllocateFromProcessHeap(size);
  if (!memory) throw std::bad_alloc();
  return memory;
}

// Frees what AllocateMemory with the same allocator returned. An exception of Free is dropped: memory is
// freed in destructors and during unwinding, where another exception would end the process.
inline void FreeMemory(IAllocator* allocator, void* memory) noexcept {
  if (!allocator) {
    platform::FreeToProcessHeap(memory);
    return;
  }
  try {
    allocator->Free(memory);
  } catch (...) {
  }
}

// Held by a container of T: a counted reference to an IAllocator, or none for the process heap. A copy takes
// a reference. Two are equal if their services are the same object.
template <class T>
class Allocator {
 public:
  Allocator() = default;
  explicit Allocator(IAllocator* service) : service_(service) {}

  IAllocator* Service() const { return service_.Get(); }
  // Memory for `count` objects, which the caller constructs. Throws std::bad_alloc.
  T* Allocate(std::uint64_t count) const {
    return static_cast<T*>(AllocateMemory(service_.Get(), count * sizeof(T)));
  }
  void Free(T* memory) const noexcept { FreeMemory(service_.Get(), memory); }

  friend bool operator==(const Allocator& left, const Allocator& right) {
    return left.Service() == right.Service();
  }

 private:
  Ref<IAllocator> service_;
};

}  // namespace zel
