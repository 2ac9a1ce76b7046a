// zel::types::basic_string_t, the string that crosses between host and module.
//
// It differs from std::basic_string in what the binary contract fixes: five public fields in a fixed order,
// an inline buffer of 16 bytes that `data` may point to, and an optional allocator of its own
// (types/allocator.h). Narrow strings hold UTF-8, payload bytes or text of the locale, as their owner
// decides. Wide strings hold UTF-16 units on every platform.
//
// Invariants: the string ends in a NUL, but embedded NULs are allowed, so only `size` gives the length.
// `data` points to `inlineBuffer` if and only if `capacity` is the inline capacity. A heap block belongs to
// this string alone. If growth fails, the string doesn't change. Threads: one at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "types/allocator.h"

namespace zel {

// Copies and measures characters.
template <class C>
struct char_traits {
  static std::uint64_t length(const C* text) {
    std::uint64_t count = 0;
    while (text[count] != C()) ++count;
    return count;
  }
  // The two ranges may overlap. If the count is 0, the pointers are ignored.
  static void move(C* target, const C* source, std::uint64_t count) {
    if (count != 0) std::char_traits<C>::move(target, source, count);
  }
  static void fill(C* target, std::uint64_t count, C value) { std::fill_n(target, count, value); }
};

namespace types {

// Keeps a replaced heap block alive while a string appends a piece of itself.
template <class C>
struct DeferredRelease {
  C* block = nullptr;
  std::uint64_t blockCharacters = 0;
  const Allocator<C>* allocator = nullptr;

  DeferredRelease() = default;
  DeferredRelease(const DeferredRelease&) = delete;
  DeferredRelease& operator=(const DeferredRelease&) = delete;
  ~DeferredRelease() { Free(); }

  void Hold(C* newBlock, std::uint64_t characters, const Allocator<C>& owner) {
    Free();
    block = newBlock;
    blockCharacters = characters;
    allocator = &owner;
  }
  void Free() {
    if (block) allocator->Free(block);
    block = nullptr;
    blockCharacters = 0;
    allocator = nullptr;
  }
};

// Tag for construction with room for a number of characters.
struct WithCapacity {
  std::uint64_t characters;
};

template <class C, class Traits = char_traits<C>, class A = Allocator<C>>
struct basic_string_t {
  static constexpr std::uint64_t inlineCapacity = 16 / sizeof(C) - 1;
  // Above any length that can be addressed. The difference to `size` limits the characters of one growth.
  static constexpr std::uint64_t lengthLimit = sizeof(C) == 1 ? 0xfffffffffffffffe : 0x7fffffffffffffff;

  C* data = inlineBuffer;
  std::uint64_t size = 0;
  std::uint64_t capacity = inlineCapacity;
  A allocator;
  C inlineBuffer[16 / sizeof(C)] = {};

  // An empty string. `service` may be null; the string takes a reference of its own.
  basic_string_t() = default;
  explicit basic_string_t(IAllocator* service) : allocator(service) {}
  // A copy of a NUL-terminated text; null gives an empty string.
  explicit basic_string_t(const C* text, IAllocator* service = nullptr) : allocator(service) {
    append(text, text ? Traits::length(text) : 0);
  }
  explicit basic_string_t(std::basic_string_view<C> text, IAllocator* service = nullptr)
      : allocator(service) {
    append(text.data(), text.size());
  }
  // An empty string with room for exactly that many characters if they are more than 15. Otherwise it keeps
  // its inline buffer, which in a wide string has room for 7.
  explicit basic_string_t(WithCapacity wanted, IAllocator* service = nullptr) : allocator(service) {
    if (wanted.characters <= 15) return;
    if (wanted.characters >= lengthLimit) throw std::length_error("zel::basic_string_t constructor");
    data = allocator.Allocate(wanted.characters + 1);
    capacity = wanted.characters;
    data[0] = C();
  }
  // The copy uses the source's allocator.
  basic_string_t(const basic_string_t& other) : allocator(other.allocator) { append(other.data, other.size); }
  // The source keeps its reference to the allocator and becomes empty.
  basic_string_t(basic_string_t&& other) noexcept : allocator(other.allocator) { TakeBuffer(other); }

  // If the allocators are equal, the buffer is kept; otherwise the target takes over the source's allocator.
  basic_string_t& operator=(const basic_string_t& other) {
    if (this == &other) return *this;
    if (allocator == other.allocator) {
      assign(other.data, other.size);
    } else {
      basic_string_t copy(other);
      swap(copy);
    }
    return *this;
  }
  basic_string_t& operator=(basic_string_t&& other) noexcept {
    if (this == &other) return *this;
    FreeBlock();
    allocator = other.allocator;
    TakeBuffer(other);
    return *this;
  }
  ~basic_string_t() { FreeBlock(); }

  bool empty() const { return size == 0; }
  bool IsInline() const { return data == inlineBuffer; }
  std::basic_string_view<C> View() const { return {data, size}; }

  // Makes room for `extra` more characters. Throws std::length_error and std::bad_alloc.
  void reserve_extra(std::uint64_t extra, DeferredRelease<C>* deferred = nullptr) {
    if (extra <= capacity - size) return;
    const Block block = NewBlock(extra, "zel::basic_string_t::reserve_extra()");
    Traits::move(block.data, data, size);
    ReplaceBlock(block, deferred);
  }

  // Opens an uninitialised gap of `extra` characters at `position`, which is at most `size`. Throws like
  // reserve_extra.
  void resize_extra_at(std::uint64_t position, std::uint64_t extra, DeferredRelease<C>* deferred = nullptr) {
    if (extra <= capacity - size) {
      Traits::move(data + position + extra, data + position, size - position);
    } else {
      const Block block = NewBlock(extra, "zel::basic_string_t::resize_extra_at");
      Traits::move(block.data, data, position);
      Traits::move(block.data + position + extra, data + position, size - position);
      ReplaceBlock(block, deferred);
    }
    size += extra;
    data[size] = C();
  }

  // The text may be part of this string.
  basic_string_t& append(const C* text, std::uint64_t count) {
    if (count == 0) return *this;
    DeferredRelease<C> deferred;
    reserve_extra(count, &deferred);
    Traits::move(data + size, text, count);
    size += count;
    data[size] = C();
    return *this;
  }
  basic_string_t& append(std::basic_string_view<C> text) { return append(text.data(), text.size()); }

  // Replaces the content, in the same buffer if the text fits. The text may be part of this string.
  void assign(const C* text, std::uint64_t count) {
    if (count > size) {
      resize_extra_at(size, count - size);
    } else {
      size = count;
    }
    Traits::move(data, text, count);
    data[size] = C();
  }

  // Inserts a text at the front. The text may be part of this string.
  void insert(const C* text, std::uint64_t count) {
    if (count == 0) return;
    if (!Overlaps(text, count)) {
      DeferredRelease<C> deferred;
      resize_extra_at(0, count, &deferred);
      Traits::move(data, text, count);
      return;
    }
    if (count > lengthLimit) throw std::length_error("zel::basic_string_t constructor");
    basic_string_t copy(allocator.Service());
    copy.append(text, count);
    insert(copy.data, copy.size);
  }

  // Swaps the allocators too. An inline text is copied, since it can't leave its object.
  void swap(basic_string_t& other) noexcept {
    C* const ownBlock = IsInline() ? nullptr : data;
    C* const otherBlock = other.IsInline() ? nullptr : other.data;
    std::swap(inlineBuffer, other.inlineBuffer);
    data = otherBlock ? otherBlock : inlineBuffer;
    other.data = ownBlock ? ownBlock : other.inlineBuffer;
    std::swap(allocator, other.allocator);
    std::swap(capacity, other.capacity);
    std::swap(size, other.size);
  }

 private:
  struct Block {
    C* data;
    std::uint64_t capacity;
  };

  Block NewBlock(std::uint64_t extra, const char* tooLong) const {
    if (extra >= lengthLimit - size) throw std::length_error(tooLong);
    const std::uint64_t newCapacity = std::max(size + extra, 2 * capacity);
    return {allocator.Allocate(newCapacity + 1), newCapacity};
  }
  void ReplaceBlock(const Block& block, DeferredRelease<C>* deferred) {
    if (!IsInline()) {
      if (deferred) {
        deferred->Hold(data, capacity + 1, allocator);
      } else {
        allocator.Free(data);
      }
    }
    data = block.data;
    capacity = block.capacity;
  }
  // Doesn't compute the end of the text: for an impossible count that wouldn't be a valid pointer.
  bool Overlaps(const C* text, std::uint64_t count) const {
    const std::less<const C*> before;
    if (!before(text, data + size)) return false;
    if (!before(text, data)) return true;
    const auto bytesBefore = reinterpret_cast<std::uintptr_t>(data) - reinterpret_cast<std::uintptr_t>(text);
    return count > bytesBefore / sizeof(C);
  }
  void FreeBlock() {
    if (!IsInline()) allocator.Free(data);
  }
  // This string has no block, and already has the allocator of `other`.
  void TakeBuffer(basic_string_t& other) {
    if (other.IsInline()) {
      data = inlineBuffer;
      capacity = inlineCapacity;
      Traits::move(inlineBuffer, other.inlineBuffer, other.size + 1);
    } else {
      data = other.data;
      capacity = other.capacity;
    }
    size = other.size;
    other.size = 0;
    other.data = other.inlineBuffer;
    other.capacity = inlineCapacity;
    other.inlineBuffer[0] = C();
  }
};

static_assert(sizeof(basic_string_t<char>) == 48 && sizeof(basic_string_t<char16_t>) == 48);
static_assert(offsetof(basic_string_t<char>, data) == 0 && offsetof(basic_string_t<char>, size) == 8);
static_assert(offsetof(basic_string_t<char>, capacity) == 16 &&
              offsetof(basic_string_t<char>, allocator) == 24);
static_assert(offsetof(basic_string_t<char>, inlineBuffer) == 32);
static_assert(basic_string_t<char>::inlineCapacity == 15 && basic_string_t<char16_t>::inlineCapacity == 7);

template <class C>
bool operator==(const basic_string_t<C>& left, const basic_string_t<C>& right) {
  return left.View() == right.View();
}

// The order of all sorted tables and maps: by bytes as signed characters, and a prefix sorts before the
// longer string. So 0x80 to 0xff sort below 0x00 to 0x7f.
inline bool operator<(const basic_string_t<char>& left, const basic_string_t<char>& right) {
  return std::lexicographical_compare(
      left.data, left.data + left.size, right.data, right.data + right.size,
      [](char a, char b) { return static_cast<signed char>(a) < static_cast<signed char>(b); });
}

// Inserts a constant at the front of a temporary string. Throws std::length_error and std::bad_alloc.
inline basic_string_t<char> Prepend(std::string_view constant, basic_string_t<char>&& text) {
  if (text.size >= basic_string_t<char>::lengthLimit - constant.size()) {
    throw std::length_error("zel::basic_string_t::insert");
  }
  text.insert(constant.data(), constant.size());
  return std::move(text);
}

}  // namespace types

template <class C>
using basic_string_t = types::basic_string_t<C, char_traits<C>, Allocator<C>>;
using string = basic_string_t<char>;
using wstring = basic_string_t<char16_t>;

}  // namespace zel
