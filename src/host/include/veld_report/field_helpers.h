// Helper objects for field tables: what a descriptor points to besides numbers and names.
//
// There is one constant object for each type: `&fieldHelper<VectorHelper<std::vector<int>>>`. They hold no
// data and are initialised at compile time, so a table that points to them is constant too. The `Source`
// argument supplies a record's descriptor: a class with `static const zel::SerObjDescriptor* Get()`.
#pragma once

#include <cstdint>
#include <new>
#include <optional>
#include <string_view>
#include <type_traits>
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

// The helper of a map, which can't be read by index.
class FieldMapHelper : public zel::SerVectorHelper {
 public:
  class Visitor {
   public:
    // Both are valid during the call. A negative result ends the visit.
    virtual zel::ResultCode Entry(std::string_view key, void* value) = 0;

   protected:
    ~Visitor() = default;
  };
  // Calls `visitor` for each entry, in the map's order. Returns the first negative result, or 0.
  virtual zel::ResultCode Visit(void* map, Visitor& visitor) = 0;

 protected:
  constexpr FieldMapHelper() = default;
  ~FieldMapHelper() = default;
};

// What the helpers share: the checks, and the description of an element.
template <class Element, class Source, class Base = zel::SerVectorHelper>
class ElementHelper : public Base {
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

// For a std::vector, a std::array or a zel::vector_t. The elements of a std::vector<bool> are read through
// constants.
template <class V, class Source = NoDescriptor>
class VectorHelper final : public ElementHelper<std::decay_t<decltype(std::declval<const V&>()[0])>, Source> {
 public:
  zel::ResultCode Resize(void* vector, std::uint32_t count) override {
    if (!vector) return zel::eInvalidArgument;
    V& target = *static_cast<V*>(vector);
    if constexpr (requires { std::tuple_size<V>::value; }) {
      return count == target.size() ? zel::sOk : zel::eInvalidArgument;
    } else {
      return GuardedResize([&] {
        if constexpr (requires { target.resize(count); }) {
          target.resize(count);
        } else if (count < target.size()) {
          target.Truncate(count);
        } else {
          target.append(count - target.size());
        }
      });
    }
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
class NestedHelper final : public ElementHelper<T, Source> {
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
class OptionalHelper final : public ElementHelper<T, Source> {
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

// For alternative `index` of a std::variant: at most one element. This header doesn't include <variant>.
template <class V, std::size_t index, class T, class Source>
class AlternativeHelper final : public ElementHelper<T, Source> {
 public:
  zel::ResultCode Resize(void*, std::uint32_t) override { return zel::eNotSupported; }
  zel::ResultCode GetSize(const void* field, std::uint32_t* out) override {
    if (!field || !out) return zel::eInvalidArgument;
    *out = static_cast<const V*>(field)->index() == index ? 1 : 0;
    return zel::sOk;
  }
  zel::ResultCode GetElement(void* field, std::uint32_t at, void** out) override {
    if (!field || !out || at != 0) return zel::eInvalidArgument;
    *out = get_if<index>(static_cast<V*>(field));
    return *out ? zel::sOk : zel::eInvalidArgument;
  }
};

// For the name of an enumeration's value: one std::string_view, or none for a value without a name. `names`
// is an array of pairs of value and name.
template <class Enum, const auto& names>
class EnumHelper final : public ElementHelper<std::string_view, NoDescriptor> {
 public:
  zel::ResultCode Resize(void*, std::uint32_t) override { return zel::eNotSupported; }
  zel::ResultCode GetSize(const void* field, std::uint32_t* out) override {
    if (!field || !out) return zel::eInvalidArgument;
    *out = Find(field) ? 1 : 0;
    return zel::sOk;
  }
  zel::ResultCode GetElement(void* field, std::uint32_t index, void** out) override {
    if (!field || !out || index != 0) return zel::eInvalidArgument;
    *out = const_cast<std::string_view*>(Find(field));
    return *out ? zel::sOk : zel::eInvalidArgument;
  }

 private:
  static const std::string_view* Find(const void* field) {
    const Enum value = *static_cast<const Enum*>(field);
    for (const auto& each : names) {
      if (each.first == value) return &each.second;
    }
    return nullptr;
  }
};

// For a map with keys that convert to std::string_view.
template <class M, class Source = NoDescriptor>
class MapHelper final : public ElementHelper<typename M::mapped_type, Source, FieldMapHelper> {
 public:
  zel::ResultCode Resize(void*, std::uint32_t) override { return zel::eNotSupported; }
  zel::ResultCode GetSize(const void* map, std::uint32_t* out) override {
    if (!map || !out) return zel::eInvalidArgument;
    const auto size = static_cast<const M*>(map)->size();
    if (size > UINT32_MAX) return zel::eInvalidArgument;
    *out = static_cast<std::uint32_t>(size);
    return zel::sOk;
  }
  zel::ResultCode GetElement(void*, std::uint32_t, void**) override { return zel::eNotSupported; }
  zel::ResultCode Visit(void* map, FieldMapHelper::Visitor& visitor) override {
    if (!map) return zel::eInvalidArgument;
    for (auto& entry : *static_cast<M*>(map)) {
      const zel::ResultCode code = visitor.Entry(entry.first, &entry.second);
      if (zel::Failed(code)) return code;
    }
    return zel::sOk;
  }
};

}  // namespace veld_report
