// The helper objects of a descriptor. With them the host's serialiser creates, copies and destroys records of
// types that it doesn't know, and walks their vectors.
//
// They have no data and are static (`constinit`). Each operation only touches the instance that it is given.
// So any thread may call them, but only one at a time for an instance.
#pragma once

#include <cstdint>
#include <memory>
#include <type_traits>

#include "contract/descriptor.h"
#include "types/vector.h"
#include "zel/rtl/error_handling/exception_conversion.h"

namespace zel {

// The static pointer to the descriptor of record T, defined with T's tables.
template <class T>
struct StaticDescriptor {
  static const SerObjDescriptor* const pointer;
};

// The operations of a record T. std::bad_alloc and std::length_error of its copies pass through.
template <class T>
class SerObjDescriptorImpl final : public SerObjDescriptorHelper {
 public:
  void CreateAt(void* place, const void* source) override {
    if (!place) return;
    if (source) {
      std::construct_at(static_cast<T*>(place), *static_cast<const T*>(source));
    } else {
      std::construct_at(static_cast<T*>(place));
    }
  }
  // If the copy throws, the memory is freed in `allocator`.
  void* CreateNew(const void* source, IAllocator* allocator) override {
    void* memory = allocator->Allocate(sizeof(T));
    if (!memory) return nullptr;
    try {
      CreateAt(memory, source);
    } catch (...) {
      FreeMemory(allocator, memory);
      throw;
    }
    return memory;
  }
  void DestroyAt(void* object) override { std::destroy_at(static_cast<T*>(object)); }
  // Field by field, in order of declaration. A vector's old elements are destroyed only once its copy has
  // succeeded.
  void Assign(const void* source, void* target) override {
    *static_cast<T*>(target) = *static_cast<const T*>(source);
  }
  bool ReservedHelperOperation() override { return false; }
};

// The operations of a vector V of records.
template <class V>
class SerVectorHelperImpl final : public SerVectorHelper {
  using Element = std::remove_pointer_t<decltype(V::first)>;

 public:
  ResultCode Resize(void* vector, std::uint32_t count) override {
    if (!vector) return eInvalidArgument;
    try {
      V& target = *static_cast<V*>(vector);
      if (count < target.size()) {
        target.Truncate(count);
      } else if (count > target.size()) {
        target.append(count - target.size());
      }
      return sOk;
    } catch (...) {
      return ExceptionToResultCode();
    }
  }
  ResultCode GetSize(const void* vector, std::uint32_t* out) override {
    if (!vector || !out) return eInvalidArgument;
    *out = static_cast<std::uint32_t>(static_cast<const V*>(vector)->size());
    return sOk;
  }
  ResultCode GetElement(void* vector, std::uint32_t index, void** out) override {
    if (!vector || !out) return eInvalidArgument;
    V& target = *static_cast<V*>(vector);
    if (index >= target.size()) return eInvalidArgument;
    *out = &target[index];
    return sOk;
  }
  ResultCode GetElementDescriptor(const SerObjDescriptor** out) override {
    if (!out) return eInvalidArgument;
    *out = StaticDescriptor<Element>::pointer;
    return *out ? sOk : eNotFound;
  }
  ResultCode GetElementSize(std::uint32_t* out) override {
    if (!out) return eInvalidArgument;
    *out = sizeof(Element);
    return sOk;
  }
};

// The vector helper of a type that isn't a vector. It ignores its arguments.
template <class T>
class NoSerVectorHelperImpl;
template <>
class NoSerVectorHelperImpl<void> final : public SerVectorHelper {
 public:
  ResultCode Resize(void*, std::uint32_t) override { return eNotSupported; }
  ResultCode GetSize(const void*, std::uint32_t*) override { return eNotSupported; }
  ResultCode GetElement(void*, std::uint32_t, void**) override { return eNotSupported; }
  ResultCode GetElementDescriptor(const SerObjDescriptor**) override { return eNotSupported; }
  ResultCode GetElementSize(std::uint32_t*) override { return eNotSupported; }
};

}  // namespace zel
