// The module's bookkeeping of live objects.
//
// zelCanUnloadModule reads ModuleObjectCount. The per-class values are for debuggers: how many objects of a
// class are alive, and the XOR of their addresses, which is 0 again once the last is gone. They are three
// separate atomics, not one transaction. The count is changed in sequence: whoever reads 0 comes after the
// destruction of every object.
#pragma once

#include <atomic>
#include <cstdint>

namespace zel {

extern constinit std::atomic<std::uint32_t> ModuleObjectCount;

// An empty first base of each concrete object, so that it is constructed before everything else of the object
// and destroyed after it.
template <class T>
class ObjectModuleAutoLockTyped {
 public:
  ObjectModuleAutoLockTyped() {
    ModuleObjectCount.fetch_add(1);
    addresses.fetch_xor(reinterpret_cast<std::uint64_t>(this));
    liveCount.fetch_add(1);
  }
  ObjectModuleAutoLockTyped(const ObjectModuleAutoLockTyped&) = delete;
  ObjectModuleAutoLockTyped& operator=(const ObjectModuleAutoLockTyped&) = delete;
  ~ObjectModuleAutoLockTyped() {
    addresses.fetch_xor(reinterpret_cast<std::uint64_t>(this));
    liveCount.fetch_sub(1);
    ModuleObjectCount.fetch_sub(1);
  }

  static inline constinit std::atomic<std::uint32_t> liveCount{0};
  static inline constinit std::atomic<std::uint64_t> addresses{0};
};

}  // namespace zel
