// What a store's blocks are made of: their bytes, and sets of positions.
#include <random>
#include <set>

#include "host/queue/block_codec.h"
#include "host/queue/range_set.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using host::BlockReader;
using Bytes = std::vector<std::uint8_t>;

struct Given {
  std::int64_t enqueuedMs;
  Bytes data;
};
const std::vector<Given> given{{1'700'000'000'000, Bytes(200, 'a')},
                               {1'700'000'000'000, {}},
                               {1'699'999'999'999, Bytes(70'000, 'b')},
                               {INT64_MAX, {0xff}},
                               {INT64_MIN, Bytes(241, 0)}};
constexpr std::uint64_t firstKey = 7;

// The intact items; each must be as it was given. Nothing if the table is damaged.
std::optional<std::set<std::uint64_t>> Intact(const Bytes& block, std::uint64_t key = firstKey) {
  auto reader = BlockReader::Open(key, block);
  if (!reader) return std::nullopt;
  EXPECT_EQ(reader->LastKey(), key + given.size() - 1);
  std::set<std::uint64_t> intact;
  host::BlockItem item;
  while (reader->Next(&item)) {
    const Given& as = given.at(item.key - firstKey);
    EXPECT_EQ(item.enqueuedMs, as.enqueuedMs) << "a time came out wrong";
    if (!item.IsIntact()) continue;
    EXPECT_TRUE(std::ranges::equal(item.data, as.data)) << "bytes came out wrong";
    intact.insert(item.key);
  }
  return intact;
}

TEST(StoreBlocksTest, AnyByteOfABlockMayBeDamaged) {
  std::vector<host::NewItem> items;
  for (const Given& each : given) items.push_back({each.enqueuedMs, each.data});
  Bytes block;
  EXPECT_EQ(host::EncodeBlock(firstKey, items, &block), INT64_MAX);
  EXPECT_EQ(Intact(block)->size(), given.size());
  EXPECT_FALSE(Intact(block, firstKey + 1)) << "it belongs to another key";
  std::size_t lostTables = 0;
  for (std::size_t i = 0; i < block.size(); i += i < 400 ? 1 : 997) {
    for (const int bit : {0, 7}) {
      Bytes damaged = block;
      damaged[i] ^= static_cast<std::uint8_t>(1 << bit);
      const auto intact = Intact(damaged);
      lostTables += !intact;
      EXPECT_TRUE(!intact || intact->size() == given.size() - 1) << "byte " << i;
    }
    const auto intact = Intact(Bytes(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(i)));
    EXPECT_TRUE(!intact || intact->size() < given.size()) << "cut to " << i;
  }
  EXPECT_LT(lostTables, 150u) << "most flips are in items";
}

TEST(StoreBlocksTest, RangesAreASet) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    host::RangeSet ranges;
    std::set<std::uint64_t> numbers;
    for (int step = 0; step < 12; ++step) {
      const std::uint64_t first = 1 + random() % 40, last = first + random() % 5;
      if (random() % 5 == 0) {
        ranges.RemoveUpTo(first);
        numbers.erase(numbers.begin(), numbers.upper_bound(first));
        continue;
      }
      ranges.Add(first, last);
      for (std::uint64_t i = first; i <= last; ++i) numbers.insert(i);
    }
    const host::RangeSet missing = ranges.Missing(1, 50);
    for (std::uint64_t i = 1; i <= 50; ++i) {
      ASSERT_EQ(ranges.Contains(i), numbers.contains(i)) << "round " << round << ", number " << i;
      ASSERT_NE(missing.Contains(i), numbers.contains(i)) << "round " << round << ", number " << i;
    }
    ASSERT_EQ(ranges.Count(), numbers.size());
    for (std::size_t i = 1; i < ranges.Ranges().size(); ++i)
      ASSERT_GT(ranges.Ranges()[i].first, ranges.Ranges()[i - 1].last + 1);
  }
}

}  // namespace
}  // namespace veld_report::tests
