// zel::types::vector_t, the vector that crosses between host and module.
//
// It differs from std::vector in three ways that the binary contract fixes. Its four words are public and in
// a fixed order. Its memory follows the rule of types/allocator.h. And it grows to twice its size (not its
// capacity), or to what is needed if that is more.
//
// Elements keep the allocators of what they are copied from, not the vector's. If growth fails, the vector
// doesn't change. Threads: one at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "types/allocator.h"

namespace zel::types {

template <class T, class A = Allocator<T>>
struct vector_t {
  static constexpr std::uint64_t maxSize = UINT64_MAX / sizeof(T);

  T* first = nullptr;
  T* last = nullptr;
  T* end = nullptr;
  A allocator;

  vector_t() = default;
  explicit vector_t(IAllocator* service) : allocator(service) {}

  // Shares the source's allocator. Has room for exactly the source's elements.
  vector_t(const vector_t& other) : allocator(other.allocator) {
    const std::uint64_t count = other.size();
    if (count > maxSize) throw std::length_error("construct");
    if (count == 0) return;
    NewBlock block(allocator, count);
    for (const T& element : other) block.Construct(element);
    Adopt(block.Detach(), count, count);
  }
  vector_t(vector_t&& other) noexcept : allocator(other.allocator) { Steal(other); }

  // Destroys the old elements only once the copy has succeeded. Takes over the allocator of `other`.
  vector_t& operator=(const vector_t& other) {
    vector_t copy(other);
    swap(copy);
    return *this;
  }
  vector_t& operator=(vector_t&& other) noexcept {
    vector_t taken(std::move(other));
    swap(taken);
    return *this;
  }
  ~vector_t() {
    Truncate(0);
    if (first) allocator.Free(first);
  }

  std::uint64_t size() const { return static_cast<std::uint64_t>(last - first); }
  std::uint64_t capacity() const { return static_cast<std::uint64_t>(end - first); }
  bool empty() const { return first == last; }
  T& operator[](std::uint64_t index) { return first[index]; }
  const T& operator[](std::uint64_t index) const { return first[index]; }

  // Throws std::bad_alloc, std::length_error ("vector::append") and what T's copy throws.
  void push_back(const T& value) {
    if (last != end) {
      std::construct_at(last, value);
      ++last;
      return;
    }
    Grow(1, [&](NewBlock& block) { block.Construct(value); });
  }
  void push_back(T&& value) {
    if (last != end) {
      std::construct_at(last, std::move(value));
      ++last;
      return;
    }
    Grow(1, [&](NewBlock& block) { block.Construct(std::move(value)); });
  }
  // Appends `count` default elements.
  void append(std::uint64_t count) {
    if (count <= static_cast<std::uint64_t>(end - last)) {
      ConstructGuard guard{last, last};
      for (std::uint64_t i = 0; i < count; ++i) guard.Construct();
      last = guard.Detach();
      return;
    }
    Grow(count, [&](NewBlock& block) {
      for (std::uint64_t i = 0; i < count; ++i) block.Construct();
    });
  }
  // Replaces the content by a copy of `count` elements, in the same block if they fit. For trivial elements.
  void assign(const T* source, std::uint64_t count) requires std::is_trivially_copyable_v<T> {
    if (count > capacity()) {
      if (count > maxSize) throw std::length_error("construct");
      Replace(allocator.Allocate(count), 0, count);
    }
    last = std::uninitialized_copy(source, source + count, first);
  }
  void clear() { Truncate(0); }
  // Destroys the elements from index `count` on, in ascending order. Keeps the block.
  void Truncate(std::uint64_t count) {
    std::destroy(first + count, last);
    last = first + count;
  }
  void swap(vector_t& other) noexcept {
    std::swap(first, other.first);
    std::swap(last, other.last);
    std::swap(end, other.end);
    std::swap(allocator, other.allocator);
  }

 private:
  // Elements built at the end of the block that aren't counted yet.
  struct ConstructGuard {
    T* begin;
    T* place;
    template <class... Arguments>
    void Construct(Arguments&&... arguments) {
      std::construct_at(place, std::forward<Arguments>(arguments)...);
      ++place;
    }
    T* Detach() {
      begin = place;
      return place;
    }
    void Rollback() {
      while (place != begin) std::destroy_at(--place);
    }
    ~ConstructGuard() { Rollback(); }
  };

  // A block under construction. Unless it is detached, its elements are destroyed, last first, and it is
  // freed.
  class NewBlock {
   public:
    NewBlock(const A& allocator, std::uint64_t capacity, std::uint64_t offset = 0)
        : allocator_(allocator),
          memory_(allocator.Allocate(capacity)),
          guard_{memory_ + offset, memory_ + offset} {}
    NewBlock(const NewBlock&) = delete;
    NewBlock& operator=(const NewBlock&) = delete;
    ~NewBlock() {
      if (!memory_) return;
      guard_.Rollback();
      allocator_.Free(memory_);
    }
    template <class... Arguments>
    void Construct(Arguments&&... arguments) {
      guard_.Construct(std::forward<Arguments>(arguments)...);
    }
    T* Detach() {
      guard_.Detach();
      return std::exchange(memory_, nullptr);
    }

   private:
    const A& allocator_;
    T* memory_;
    ConstructGuard guard_;
  };

  // Builds the new elements at their final place before it moves anything. So a failure changes nothing, and
  // the source may be an element of this vector.
  template <class Construct>
  void Grow(std::uint64_t count, Construct&& construct) {
    const std::uint64_t oldSize = size();
    if (count > maxSize - oldSize) throw std::length_error("vector::append");
    const std::uint64_t doubled = oldSize > maxSize / 2 ? maxSize : 2 * oldSize;
    const std::uint64_t newCapacity = doubled > oldSize + count ? doubled : oldSize + count;
    NewBlock block(allocator, newCapacity, oldSize);
    construct(block);
    T* memory = block.Detach();
    std::uninitialized_move(first, last, memory);
    std::destroy(first, last);
    Replace(memory, oldSize + count, newCapacity);
  }
  // Frees the old block last, so that a host's Free sees a complete vector. The old elements are gone
  // already.
  void Replace(T* block, std::uint64_t count, std::uint64_t capacityOfBlock) {
    T* const old = first;
    Adopt(block, count, capacityOfBlock);
    if (old) allocator.Free(old);
  }
  void Adopt(T* block, std::uint64_t count, std::uint64_t capacityOfBlock) {
    first = block;
    last = block + count;
    end = block + capacityOfBlock;
  }
  void Steal(vector_t& other) {
    first = std::exchange(other.first, nullptr);
    last = std::exchange(other.last, nullptr);
    end = std::exchange(other.end, nullptr);
  }
};

// For range-based for: the field `end` rules out members named begin and end.
template <class T, class A>
T* begin(vector_t<T, A>& vector) {
  return vector.first;
}
template <class T, class A>
T* end(vector_t<T, A>& vector) {
  return vector.last;
}
template <class T, class A>
const T* begin(const vector_t<T, A>& vector) {
  return vector.first;
}
template <class T, class A>
const T* end(const vector_t<T, A>& vector) {
  return vector.last;
}

static_assert(sizeof(vector_t<int>) == 32);
static_assert(offsetof(vector_t<int>, first) == 0 && offsetof(vector_t<int>, last) == 8);
static_assert(offsetof(vector_t<int>, end) == 16 && offsetof(vector_t<int>, allocator) == 24);

}  // namespace zel::types

namespace zel {
template <class T>
using vector_t = types::vector_t<T, Allocator<T>>;
}  // namespace zel
