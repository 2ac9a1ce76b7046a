#include "types/vector.h"

#include <string>

#include "contract/descriptor.h"
#include "gmock/gmock.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/fakes.h"
#include "types/basic_string.h"

namespace veld_report::test {
namespace {

using zel::string;
using Strings = zel::vector_t<string>;
using testing::ElementsAre;

const std::string longText = "a text that is too long for the buffer inside";

// Notes what is destroyed, and throws when one default construction or copy too many is made.
struct Fragile {
  static inline int left = 0;
  static inline std::vector<int> destroyed;
  int value = 9;
  Fragile() { Spend(); }
  explicit Fragile(int v) : value(v) {}
  Fragile(const Fragile& other) : value(other.value) { Spend(); }
  Fragile(Fragile&& other) noexcept : value(other.value) {}
  Fragile& operator=(const Fragile&) = delete;
  ~Fragile() { destroyed.push_back(value); }
  static void Spend() {
    if (left-- <= 0) throw std::runtime_error("no more");
  }
};

TEST(Vector, GrowsFromItsSizeAndNotFromItsCapacity) {
  zel::vector_t<int> numbers;
  std::vector<std::uint64_t> capacities;
  for (int i = 0; i < 5; ++i) {
    numbers.push_back(i);
    capacities.push_back(numbers.capacity());
  }
  EXPECT_THAT(capacities, ElementsAre(1, 2, 4, 4, 8));

  struct Case {
    std::uint64_t exactly, added, capacity;
  };
  for (const Case& c : {Case{5, 1, 10}, Case{1, 3, 4}, Case{3, 3, 6}, Case{0, 4, 4}, Case{3, 0, 3}}) {
    zel::vector_t<int> filled;
    filled.append(c.exactly);
    zel::vector_t<int> exact(filled);
    EXPECT_EQ(exact.capacity(), c.exactly);
    exact.append(c.added);
    EXPECT_EQ(exact.capacity(), c.capacity) << c.exactly << "+" << c.added;
  }
  numbers.Truncate(1);
  EXPECT_EQ(numbers.capacity(), 8u) << "the block stays";
  numbers.append(10);
  EXPECT_EQ(numbers.capacity(), 11u);
}

TEST(Vector, CopiesAndMovesFollowTheAllocator) {
  CountingAllocator one, two;
  Strings source(&one);
  const Strings copyOfEmpty(source);
  EXPECT_EQ(copyOfEmpty.first, nullptr);
  EXPECT_EQ(one.references, 2u);

  source.push_back(string(longText.c_str(), &two));
  source.push_back(source[0]);  // a piece of itself, while it grows
  EXPECT_EQ(source[1].View(), longText);
  EXPECT_EQ(source[1].allocator.Service(), &two)
      << "an element keeps the allocator of what it is copied from";
  EXPECT_EQ(one.blocks, 1);

  Strings target(&two);
  target.push_back(string("old"));
  target = source;
  EXPECT_EQ(target.allocator.Service(), &one);
  Strings& self = target;
  target = self;
  EXPECT_EQ(target.size(), 2u);
  const string* block = target.first;
  const Strings moved(std::move(target));
  EXPECT_EQ(moved.first, block);
  target.push_back(string("usable again"));
  EXPECT_EQ(target.size(), 1u);
}

TEST(Vector, ElementThatThrowsLeavesEverythingInPlace) {
  zel::vector_t<Fragile> elements;
  for (int i = 0; i < 2; ++i) elements.push_back(Fragile(i));
  const auto first = elements.first, last = elements.last, end = elements.end;
  // Lets `left` constructions succeed; says what was destroyed when the next one threw.
  const auto destroyedBy = [&](int left, auto&& operation) {
    Fragile::left = left;
    Fragile::destroyed.clear();
    EXPECT_THROW(operation(), std::runtime_error);
    EXPECT_TRUE(elements.first == first && elements.last == last && elements.end == end);
    return Fragile::destroyed;
  };
  EXPECT_THAT(destroyedBy(0, [&] { elements.push_back(elements[1]); }), ElementsAre());
  EXPECT_THAT(destroyedBy(2, [&] { elements.append(3); }), ElementsAre(9, 9));
  EXPECT_THAT(destroyedBy(1, [&] { zel::vector_t<Fragile>{elements}; }), ElementsAre(0));
  elements.Truncate(0);
  EXPECT_THAT(Fragile::destroyed, ElementsAre(0, 0, 1)) << "in ascending order";
}

TEST(Vector, RefusesMoreThanItsMaximum) {
  zel::vector_t<int> numbers;
  numbers.append(2);
  // Volatile, so that the compiler doesn't foresee what can't be allocated.
  const volatile std::uint64_t maximum = UINT64_MAX / sizeof(int);
  try {
    numbers.append(maximum - 1);
    ADD_FAILURE();
  } catch (const std::length_error& error) {
    EXPECT_STREQ(error.what(), "vector::append");
  }
  EXPECT_THROW(numbers.append(maximum - 2), std::bad_alloc);
  EXPECT_EQ(numbers.size(), 2u);
}

TEST(Vector, AllocationFailureLeaksNothing) {
  CountingAllocator one;
  const std::uint8_t bytes[] = {1, 2};
  SweepAllocationFailures([&] {
    Strings source(&one);
    source.push_back(string(longText.c_str()));
    source.push_back(source[0]);
    source.append(3);
    Strings target(source);
    target = source;
    zel::vector_t<std::uint8_t> plain;
    plain.assign(bytes, 2);
    return true;
  });
}

TEST(Ref, CountsExactly) {
  CountingAllocator object, other;
  FakeLocator locator;
  locator.Put<zel::IAllocator>(&object);
  zel::Ref<zel::IAllocator> held(&object);
  const zel::Ref<zel::IObject> converted(held);
  EXPECT_EQ(object.references, 2u);
  zel::Ref<zel::IAllocator> moved(std::move(held));
  EXPECT_FALSE(held);
  zel::Ref<zel::IAllocator>& self = moved;
  moved = self;
  moved = std::move(self);
  EXPECT_EQ(object.references, 2u);
  moved = zel::Ref<zel::IAllocator>(&other);
  EXPECT_EQ(object.references, 1u);
  held = zel::Ref<zel::IAllocator>::Attach(moved.Detach());
  EXPECT_EQ(other.references, 1u);
  EXPECT_EQ(zel::GetInterface(&locator, held), zel::sOk);
  EXPECT_EQ(held.Get(), &object);
  EXPECT_EQ(object.references, 2u);
  EXPECT_EQ(other.references, 0u) << "what was held is released";
}

TEST(AnyPtr, CountsItsKeeper) {
  CountingAllocator keeper, other;
  const zel::AnyPtr any(nullptr, nullptr, &keeper);
  zel::AnyPtr copy(any);
  EXPECT_EQ(keeper.references, 2u);
  copy = zel::AnyPtr(nullptr, nullptr, &other);
  EXPECT_EQ(keeper.references, 1u);
  [](zel::AnyPtr) {}(copy);
  EXPECT_EQ(other.references, 1u);
}

}  // namespace
}  // namespace veld_report::test
