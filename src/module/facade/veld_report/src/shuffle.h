// An unbiased shuffle with a random source that yields 15 bits at a time.
//
// The draws of std::shuffle depend on the library. Here they are fixed: one for each position from the second
// on, made of as many pieces as the position needs, and repeated if it would favour a value.
#pragma once

#include <cstdint>
#include <utility>

namespace orvel::veld_report {

// A number below `k`, which isn't 0. Numbers of `random15` above 32767 are skipped.
template <class Random15>
std::uint64_t DrawBelow(std::uint64_t k, Random15&& random15) {
  for (;;) {
    std::uint64_t value = 0;
    std::uint64_t mask = 0;
    do {
      std::uint32_t piece;
      do {
        piece = random15();
      } while (piece > 32767);
      value = (value << 15) | piece;
      mask = (mask << 15) | 32767;
    } while (mask < k - 1);
    if (value / k < mask / k || mask % k == k - 1) return value % k;
  }
}

// `names`: anything with size() and operator[]. With fewer than two elements nothing is drawn.
template <class Names, class Random15>
void Shuffle(Names& names, Random15&& random15) {
  for (std::uint64_t i = 1; i < names.size(); ++i) {
    const std::uint64_t j = DrawBelow(i + 1, random15);
    std::swap(names[i], names[j]);
  }
}

}  // namespace orvel::veld_report
