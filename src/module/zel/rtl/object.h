// zel::Object, the wrapper that makes a class a concrete object. It adds the reference count and the module's
// bookkeeping, and its policy decides where the memory comes from. Nothing else is ever instantiated.
//
// T implements its interfaces except for AddRef and Release. QueryInterface is T's, since only T knows its
// interfaces. If T has a FinalRelease, it is called with the count at 0, before the destructor.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "contract/service_locator.h"
#include "types/allocator.h"
#include "types/object.h"
#include "zel/rtl/error_handling/exception_conversion.h"
#include "zel/rtl/object_module_lock.h"

namespace zel {

// Calls FinalRelease if the class has one.
template <class ObjectT>
void RunFinalRelease(ObjectT* object) {
  if constexpr (requires { object->FinalRelease(); }) object->FinalRelease();
}

// For objects that need no services: their memory comes from the module's global heap.
struct SimpleObjectFactory {
  // Returns an object with a count of 1. Throws std::bad_alloc and what the constructor throws.
  template <class ObjectT>
  static ObjectT* Make() {
    return new ObjectT();
  }
  template <class ObjectT>
  static void End(ObjectT* object) {
    delete object;
  }
};

// For objects built from a service locator: their memory comes from the locator's allocator.
struct LocatorObjectFactory {
  // `*out` receives an object with a count of 1, owned by the caller. On failure nothing is left alive and
  // `*out` doesn't change; the exception is traced after unwinding has restored everything.
  template <class ObjectT>
  static ResultCode Make(IServiceLocator* locator, ObjectT** out) {
    try {
      Ref<IAllocator> allocator;
      const ResultCode code = GetInterface(locator, allocator);
      if (Failed(code)) return code;
      Memory memory(*allocator, sizeof(ObjectT));
      *out = new (memory.block) ObjectT(locator);
      memory.block = nullptr;
      return sOk;
    } catch (...) {
      return ConstructionExceptionToResultCode(locator);
    }
  }
  template <class ObjectT>
  static void End(ObjectT* object) {
    // The object's own reference to the allocator is released before its memory is freed.
    const Ref<IAllocator> allocator(object->allocator);
    const Destruction<ObjectT> destruction{*allocator, object};
    RunFinalRelease(object);
  }

 private:
  struct Memory {
    Memory(IAllocator& source, std::uint64_t size)
        : allocator(source), block(AllocateMemory(&source, size)) {}
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;
    ~Memory() {
      if (block) FreeMemory(&allocator, block);
    }
    IAllocator& allocator;
    void* block;
  };
  // Destroys the object on every path, even if FinalRelease throws.
  template <class ObjectT>
  struct Destruction {
    IAllocator& allocator;
    ObjectT* object;
    ~Destruction() {
      object->~ObjectT();
      FreeMemory(&allocator, object);
    }
  };
};

template <class T, class Policy>
class Object final : private ObjectModuleAutoLockTyped<T>, public T {
 public:
  template <class... Arguments>
  explicit Object(Arguments&&... arguments) : T(std::forward<Arguments>(arguments)...), references_(1) {}

  std::uint32_t AddRef() override { return references_.fetch_add(1) + 1; }
  std::uint32_t Release() override {
    // Only the result of the subtraction counts, so exactly one thread sees 0. In sequence, so it comes after
    // what all other threads did with the object before their own Release.
    const std::uint32_t left = references_.fetch_sub(1) - 1;
    if (left == 0) Policy::End(this);
    return left;
  }

 private:
  std::atomic<std::uint32_t> references_;
};

// The other way to complete a class: for an object that is a member of another one. It counts nothing and
// takes no part in the bookkeeping.
template <class T>
class AutoObjectBase : public T {
 public:
  std::uint32_t AddRef() override { return 0; }
  std::uint32_t Release() override { return 0; }
};
template <class T>
class AutoObject final : public AutoObjectBase<T> {};

}  // namespace zel
