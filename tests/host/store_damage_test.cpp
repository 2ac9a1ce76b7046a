// A store, and a block of one, that is damaged at one place after another: what comes out, and what is
// counted.
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

// Sets of positions.
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

class StoreDamageTest : public StoreTest {
 protected:
  static constexpr std::size_t each = 150, acknowledged = 10;
  static constexpr std::size_t firstPages = 3 * 4096;  // the schema, and the queues with their figures

  static std::string ItemText(const std::string& queue, std::size_t number) {
    return queue + Numbered(number) + std::string(number == 99 ? 70'000 : 300, '.');
  }
  void Fill() {
    Open();
    for (std::size_t i = 0; i < each; ++i) Push("a", ItemText("a", i)), Push("b", ItemText("b", i));
    const auto reader = Reader("a");
    for (const ReadItem& item : ReadAll(*reader, acknowledged)) reader->Ack(&item.token);
  }
  // Delivers everything. How many came out; what comes must have been put in, be in order, and come once.
  std::size_t Drain(const std::string& queue, std::size_t next) {
    std::size_t count = 0;
    const auto reader = Reader(queue);
    for (const ReadItem& item : ReadAll(*reader)) {
      while (next < each && ItemText(queue, next) != item.bytes) ++next;
      EXPECT_LT(next++, each) << item.bytes.substr(0, 20);
      EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
      ++count;
    }
    return count;
  }
  void Try(const std::string& bytes, bool figuresAreIntact) {
    std::filesystem::remove_all(options.folder);
    std::filesystem::create_directory(options.folder);
    WriteFile(StorePath(), bytes);
    Open();
    for (const char* queue : {"a", "b"}) {
      const std::size_t before = figuresAreIntact && *queue == 'a' ? acknowledged : 0;
      const std::size_t count = Drain(queue, before);
      service->Commit();
      if (!figuresAreIntact) continue;
      EXPECT_EQ(count + static_cast<std::size_t>(Ledger(queue).damaged.items), each - before) << queue;
      EXPECT_EQ(Ledger(queue).waiting, ItemCount());
    }
    const Strings findings = Findings();
    EXPECT_TRUE(!figuresAreIntact || findings.empty()) << testing::PrintToString(findings);
  }
};

TEST_F(StoreDamageTest, EachItemComesOutWholeOrIsCounted) {
  options.folder = folder / "store";
  std::filesystem::create_directory(options.folder);
  Fill();
  service.Reset();
  const std::string whole = ReadFile(StorePath());
  const auto step = static_cast<std::size_t>(FromEnvironment("VELD_DAMAGE_STEP", 2999));
  for (std::size_t at = 0; at < whole.size() && !HasFailure(); at += step) {
    SCOPED_TRACE("byte " + std::to_string(at) + " of " + std::to_string(whole.size()));
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x11);
    Try(damaged, at >= firstPages);
    if (at >= firstPages && at % 4 == 0) Try(whole.substr(0, at), true);
  }
}

}  // namespace
}  // namespace veld_report::tests
