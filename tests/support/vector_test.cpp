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

// Counts itself, notes what is destroyed, and throws when a copy too many is made.
struct Fragile {
  static inline int copiesLeft = 1000;
  static inline std::vector<int> destroyed;
  int value = 0;
  Fragile() {
    if (copiesLeft-- <= 0) throw std::runtime_error("no more");
  }
  explicit Fragile(int v) : value(v) {}
  Fragile(const Fragile& other) : value(other.value) {
    if (copiesLeft-- <= 0) throw std::runtime_error("no more");
  }
  Fragile(Fragile&& other) noexcept : value(other.value) {}
  Fragile& operator=(const Fragile&) = delete;
  ~Fragile() { destroyed.push_back(value); }
};

TEST(Vector, GrowsFromItsSizeAndNotFromItsCapacity) {
  zel::vector_t<int> numbers;
  std::vector<std::uint64_t> capacities;
  for (int i = 0; i < 9; ++i) {
    numbers.push_back(i);
    capacities.push_back(numbers.capacity());
  }
  EXPECT_THAT(capacities, ElementsAre(1, 2, 4, 4, 8, 8, 8, 8, 16));

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
    EXPECT_EQ(exact.size(), c.exactly + c.added);
  }

  zel::vector_t<int> cut(numbers);
  cut.Truncate(1);
  EXPECT_EQ(cut.capacity(), 9u) << "the block stays";
  cut.append(10);
  EXPECT_EQ(cut.capacity(), 11u);
}

TEST(Vector, CopiesAndMovesFollowTheAllocator) {
  CountingAllocator one, two;
  {
    Strings empty(&one);
    const Strings copyOfEmpty(empty);
    EXPECT_EQ(copyOfEmpty.first, nullptr);
    EXPECT_EQ(one.references, 2u);
    EXPECT_EQ(one.blocks, 0);

    Strings source(&one);
    source.push_back(string(longText.c_str(), &two));
    source.push_back(source[0]);  // a piece of itself, while it grows
    EXPECT_EQ(source[1].View(), longText);
    EXPECT_EQ(source[1].allocator.Service(), &two)
        << "an element keeps the allocator of what it is copied from";
    EXPECT_EQ(one.blocks, 1);
    EXPECT_EQ(two.blocks, 2);

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
    EXPECT_TRUE(target.empty());
    target.push_back(string("usable again"));
  }
}

TEST(Vector, ElementThatThrowsLeavesEverythingInPlace) {
  {
    zel::vector_t<Fragile> elements;
    for (int i = 0; i < 2; ++i) elements.push_back(Fragile(i));
    const auto first = elements.first, last = elements.last, end = elements.end;
    const Fragile extra(7);
    const auto unchanged = [&] {
      return elements.first == first && elements.last == last && elements.end == end &&
             elements[1].value == 1;
    };
    Fragile::copiesLeft = 0;
    EXPECT_THROW(elements.push_back(extra), std::runtime_error);
    EXPECT_TRUE(unchanged());
    Fragile::copiesLeft = 2;
    Fragile::destroyed.clear();
    EXPECT_THROW(elements.append(3), std::runtime_error);
    EXPECT_EQ(Fragile::destroyed.size(), 2u);
    EXPECT_TRUE(unchanged());
    Fragile::copiesLeft = 1;
    Fragile::destroyed.clear();
    EXPECT_THROW(zel::vector_t<Fragile>{elements}, std::runtime_error);
    EXPECT_THAT(Fragile::destroyed, ElementsAre(0));
    Fragile::destroyed.clear();
    elements.Truncate(0);
    EXPECT_THAT(Fragile::destroyed, ElementsAre(0, 1)) << "in ascending order";
  }
  Fragile::copiesLeft = 1000;
}

TEST(Vector, RefusesMoreThanItsMaximum) {
  zel::vector_t<int> numbers;
  numbers.append(2);
  // Volatile, so that the compiler doesn't foresee what can't be allocated.
  const volatile std::uint64_t maximum = UINT64_MAX / sizeof(int);
  for (const std::uint64_t count : {UINT64_MAX, maximum - 1}) {
    try {
      numbers.append(count);
      ADD_FAILURE();
    } catch (const std::length_error& error) {
      EXPECT_STREQ(error.what(), "vector::append");
    }
  }
  EXPECT_THROW(numbers.append(maximum - 2), std::bad_alloc);
  EXPECT_EQ(numbers.size(), 2u);
  DryAllocator dry;
  zel::vector_t<int> without(&dry);
  EXPECT_THROW(without.push_back(1), std::bad_alloc);
  EXPECT_EQ(without.first, nullptr);
}

TEST(Vector, AssignKeepsTheBlockWhereTheBytesFit) {
  zel::vector_t<std::uint8_t> bytes;
  bytes.assign(nullptr, 0);
  EXPECT_TRUE(bytes.empty());
  const std::uint8_t source[] = {1, 2, 3, 4};
  bytes.assign(source, 4);
  const auto* block = bytes.first;
  bytes.assign(source + 1, 2);
  EXPECT_THAT(std::vector<int>(bytes.first, bytes.last), ElementsAre(2, 3));
  EXPECT_EQ(bytes.first, block);
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
  {
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
    zel::IAllocator* plain = moved.Detach();
    EXPECT_EQ(other.references, 1u);
    held = zel::Ref<zel::IAllocator>::Attach(plain);
    EXPECT_EQ(held.Out(), held.Out()) << "releases what was held";
    EXPECT_EQ(other.references, 0u);

    FakeLocator locator;
    locator.Put<zel::IAllocator>(&object);
    zel::Ref<zel::IAllocator> found(&other);
    EXPECT_EQ(zel::GetInterface(&locator, found), zel::sOk);
    EXPECT_EQ(found.Get(), &object);
    EXPECT_EQ(object.references, 2u);
    EXPECT_EQ(other.references, 0u);
  }
}

TEST(AnyPtr, CountsItsKeeper) {
  CountingAllocator keeper, other;
  int instance = 0;
  {
    const zel::AnyPtr any(&instance, nullptr, &keeper);
    zel::AnyPtr copy(any);
    EXPECT_EQ(keeper.references, 2u);
    EXPECT_EQ(copy.object, &instance);
    copy = zel::AnyPtr(nullptr, nullptr, &other);
    EXPECT_EQ(keeper.references, 1u);
    EXPECT_EQ(other.references, 1u);
    [](zel::AnyPtr) {}(copy);
    EXPECT_EQ(other.references, 1u);
    copy = zel::AnyPtr();
    EXPECT_EQ(other.references, 0u);
  }
}

}  // namespace
}  // namespace veld_report::test
