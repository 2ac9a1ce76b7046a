#include "types/vector.h"

#include <stdexcept>
#include <vector>

#include "gmock/gmock.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;

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
