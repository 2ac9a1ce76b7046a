// Helper objects for field tables: what a descriptor points to besides numbers and names.
//
// There is one constant object for each type: `&fieldHelper<VectorHelper<std::vector<int>>>`. They hold no
// data and are initialised at compile time, so a table that points to them is constant too. The `Source`
// argument supplies a record's descriptor: a class with `static const zel::SerObjDescriptor* Get()`.
#pragma once

#include <cstdint>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "contract/descriptor.h"

namespace veld_report {

// Runs `resize`, which may throw what the elements throw.
template <class Resize>
zel::ResultCode GuardedResize(Resize&& resize) noexcept {
  try {
    resize();
    return zel::sOk;
  } catch (const std::bad_alloc&) {
    return zel::eOutOfMemory;
  } catch (...) {
    return zel::eUnspecifiedError;
  }
}

template <class Helper>
inline constinit Helper fieldHelper{};

// For fields of plain values.
struct NoDescriptor {
  static const zel::SerObjDescriptor* Get() { return nullptr; }
};

// The operations of a default-constructible, copyable and assignable structure T.
template <class T>
class RecordHelper final : public zel::SerObjDescriptorHelper {
 public:
  void CreateAt(void* place, const void* source) override {
    if (!place) return;
    if (source) {
      new (place) T(*static_cast<const T*>(source));
    } else {
      new (place) T();
    }
  }
  void* CreateNew(const void* source, zel::IAllocator* allocator) override {
    void* const memory = allocator->Allocate(sizeof(T));
    if (!memory) return nullptr;
    try {
      CreateAt(memory, source);
    } catch (...) {
      allocator->Free(memory);
      throw;
    }
    return memory;
  }
  void DestroyAt(void* object) override { static_cast<T*>(object)->~T(); }
  void Assign(const void* source, void* target) override {
    *static_cast<T*>(target) = *static_cast<const T*>(source);
  }
  bool ReservedHelperOperation() override { return false; }
};

// What the three kinds of helper share: the checks, and the description of an element.
template <class Container, class Element, class Source>
class ElementHelper : public zel::SerVectorHelper {
 public:
  zel::ResultCode GetElementDescriptor(const zel::SerObjDescriptor** out) final {
    if (!out) return zel::eInvalidArgument;
    *out = Source::Get();
    return *out ? zel::sOk : zel::eNotFound;
  }
  zel::ResultCode GetElementSize(std::uint32_t* out) final {
    if (!out) return zel::eInvalidArgument;
    *out = sizeof(Element);
    return zel::sOk;
  }

 protected:
  constexpr ElementHelper() = default;
  ~ElementHelper() = default;
};

// For a std::vector or a zel::vector_t. The elements of a std::vector<bool> are read through constants.
template <class V, class Source = NoDescriptor>
class VectorHelper final
    : public ElementHelper<V, std::decay_t<decltype(std::declval<const V&>()[0])>, Source> {
 public:
  zel::ResultCode Resize(void* vector, std::uint32_t count) override {
    if (!vector) return zel::eInvalidArgument;
    return GuardedResize([&] {
      V& target = *static_cast<V*>(vector);
      if constexpr (requires { target.resize(count); }) {
        target.resize(count);
      } else if (count < target.size()) {
        target.Truncate(count);
      } else {
        target.append(count - target.size());
      }
    });
  }
  zel::ResultCode GetSize(const void* vector, std::uint32_t* out) override {
    if (!vector || !out) return zel::eInvalidArgument;
    const auto size = static_cast<const V*>(vector)->size();
    if (size > UINT32_MAX) return zel::eInvalidArgument;
    *out = static_cast<std::uint32_t>(size);
    return zel::sOk;
  }
  zel::ResultCode GetElement(void* vector, std::uint32_t index, void** out) override {
    if (!vector || !out) return zel::eInvalidArgument;
    V& source = *static_cast<V*>(vector);
    if (index >= source.size()) return zel::eInvalidArgument;
    if constexpr (std::is_same_v<V, std::vector<bool>>) {
      static constinit bool values[] = {false, true};
      *out = &values[source[index] ? 1 : 0];
    } else {
      *out = &source[index];
    }
    return zel::sOk;
  }
};

// For a record inside a record: always one element, the field itself.
template <class T, class Source>
class NestedHelper final : public ElementHelper<T, T, Source> {
 public:
  zel::ResultCode Resize(void* field, std::uint32_t count) override {
    return field && count == 1 ? zel::sOk : zel::eInvalidArgument;
  }
  zel::ResultCode GetSize(const void* field, std::uint32_t* out) override {
    if (!field || !out) return zel::eInvalidArgument;
    *out = 1;
    return zel::sOk;
  }
  zel::ResultCode GetElement(void* field, std::uint32_t index, void** out) override {
    if (!field || !out || index != 0) return zel::eInvalidArgument;
    *out = field;
    return zel::sOk;
  }
};

// For a std::optional<T>: no element or one.
template <class T, class Source = NoDescriptor>
class OptionalHelper final : public ElementHelper<std::optional<T>, T, Source> {
 public:
  zel::ResultCode Resize(void* field, std::uint32_t count) override {
    if (!field || count > 1) return zel::eInvalidArgument;
    return GuardedResize([&] {
      auto& target = *static_cast<std::optional<T>*>(field);
      if (count == 0) {
        target.reset();
      } else if (!target) {
        target.emplace();
      }
    });
  }
  zel::ResultCode GetSize(const void* field, std::uint32_t* out) override {
    if (!field || !out) return zel::eInvalidArgument;
    *out = static_cast<const std::optional<T>*>(field)->has_value() ? 1 : 0;
    return zel::sOk;
  }
  zel::ResultCode GetElement(void* field, std::uint32_t index, void** out) override {
    if (!field || !out || index != 0) return zel::eInvalidArgument;
    auto& source = *static_cast<std::optional<T>*>(field);
    if (!source) return zel::eInvalidArgument;
    *out = &*source;
    return zel::sOk;
  }
};

}  // namespace veld_report
