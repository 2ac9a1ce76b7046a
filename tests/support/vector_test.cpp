#include "types/vector.h"

#include <stdexcept>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "tests/fakes/fake_memory.h"
#include "types/basic_string.h"

namespace veld_report::tests {
namespace {

using zel::string;
using Texts = zel::vector_t<string>;
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
  numbers.Truncate(1);
  EXPECT_EQ(numbers.capacity(), 8u) << "the block stays";
  numbers.append(10);
  EXPECT_EQ(numbers.capacity(), 11u);
  numbers.append(1);
  EXPECT_EQ(numbers.capacity(), 22u);
  const zel::vector_t<int> copy(numbers);
  EXPECT_EQ(copy.capacity(), 12u) << "a copy is exact";
}

TEST(Vector, CopiesAndMovesFollowTheAllocator) {
  fakes::FakeWorld world;
  const auto one = fakes::MakeFake<fakes::FakeAllocator>(world);
  const auto two = fakes::MakeFake<fakes::FakeAllocator>(world);
  Texts source(one.Get());
  source.push_back(string(longText.c_str(), two.Get()));
  source.push_back(source[0]);  // a piece of itself, while it grows
  EXPECT_EQ(source[1].View(), longText);
  EXPECT_EQ(source[1].allocator.Service(), two.Get()) << "an element keeps that of what it is copied from";
  EXPECT_EQ(one->LiveBlocks(), 1u);

  Texts target(two.Get());
  target.push_back(string("old"));
  target = source;
  EXPECT_EQ(target.allocator.Service(), one.Get());
  Texts& self = target;
  target = self;
  EXPECT_EQ(target.size(), 2u);
  const string* block = target.first;
  const Texts moved(std::move(target));
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
}

}  // namespace
}  // namespace veld_report::tests
