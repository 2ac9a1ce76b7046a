#include "host/queue/block_codec.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>

namespace veld_report::host {
namespace {

constexpr std::uint8_t formatNumber = 1;
constexpr std::size_t sumBytes = 4;

// Depends on all bits of both. Seeding the hash itself would cost a table for each item.
std::uint32_t Fold(std::uint64_t hash, std::uint64_t key, std::uint64_t other) {
  std::uint64_t mixed = hash ^ (key * 0x9e3779b97f4a7c15U) ^ ((other + 1) * 0xc2b2ae3d27d4eb4fU);
  mixed = (mixed ^ mixed >> 32) * 0xd6e8feb86659fd93U;
  return static_cast<std::uint32_t>(mixed ^ mixed >> 32);
}

std::uint32_t SumOfItem(std::uint64_t key, std::int64_t enqueuedMs, std::span<const std::uint8_t> data) {
  return Fold(XXH3_64bits(data.data(), data.size()), key, static_cast<std::uint64_t>(enqueuedMs));
}

std::uint32_t SumOfTable(std::uint64_t firstKey, std::span<const std::uint8_t> table) {
  return Fold(XXH3_64bits(table.data(), table.size()), firstKey, 0);
}

std::uint64_t Zigzag(std::int64_t value) {
  return static_cast<std::uint64_t>(value) << 1 ^ static_cast<std::uint64_t>(value >> 63);
}

std::int64_t FromZigzag(std::uint64_t value) {
  return static_cast<std::int64_t>(value >> 1 ^ (~(value & 1) + 1));
}

// Signed arithmetic that wraps, as times from a damaged file may lie anywhere.
std::int64_t Plus(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
std::int64_t Minus(std::int64_t a, std::int64_t b) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

constexpr std::size_t maxNumberBytes = 10;

// Both return the place after what they have put.
std::uint8_t* PutNumber(std::uint64_t value, std::uint8_t* out) {
  while (value >= 0x80) {
    *out++ = static_cast<std::uint8_t>(value | 0x80);
    value >>= 7;
  }
  *out++ = static_cast<std::uint8_t>(value);
  return out;
}

std::uint8_t* PutSum(std::uint32_t sum, std::uint8_t* out) {
  for (int shift = 0; shift < 32; shift += 8) *out++ = static_cast<std::uint8_t>(sum >> shift);
  return out;
}

// Takes a number from the front of `*in`; false if none stands there.
bool TakeNumber(std::span<const std::uint8_t>* in, std::uint64_t* value) {
  *value = 0;
  for (std::size_t i = 0; i < std::min(in->size(), maxNumberBytes); ++i) {
    const std::uint8_t byte = (*in)[i];
    *value |= std::uint64_t{byte & 0x7fU} << (7 * i);
    if (byte < 0x80) {
      *in = in->subspan(i + 1);
      return true;
    }
  }
  return false;
}

std::uint32_t SumAt(std::span<const std::uint8_t> bytes, std::size_t at) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < sumBytes; ++i) sum |= std::uint32_t{bytes[at + i]} << (8 * i);
  return sum;
}

}  // namespace

void BlockBuilder::Add(std::int64_t enqueuedMs, std::span<const std::uint8_t> data) {
  bytes_.insert(bytes_.end(), data.begin(), data.end());
  items_.push_back({enqueuedMs, data.size()});
}

std::vector<NewItem> BlockBuilder::Items() const {
  std::vector<NewItem> items;
  std::span<const std::uint8_t> rest(bytes_);
  for (const Item& item : items_) {
    items.push_back({item.enqueuedMs, rest.first(item.size)});
    rest = rest.subspan(item.size);
  }
  return items;
}

void BlockBuilder::Clear() {
  items_.clear();
  bytes_.clear();
}

std::int64_t EncodeBlock(std::uint64_t firstKey, std::span<const NewItem> items,
                         std::vector<std::uint8_t>* block) {
  constexpr std::size_t maxHeadBytes = 1 + 2 * maxNumberBytes + sumBytes;
  block->resize(maxHeadBytes + items.size() * (2 * maxNumberBytes + sumBytes));
  std::uint8_t* out = block->data();
  *out++ = formatNumber;
  out = PutNumber(items.size(), out);
  std::int64_t timeMs = items.front().enqueuedMs;
  std::int64_t latestMs = timeMs;
  out = PutNumber(Zigzag(timeMs), out);
  for (const NewItem& item : items) {
    out = PutNumber(item.data.size(), out);
    out = PutNumber(Zigzag(Minus(item.enqueuedMs, timeMs)), out);
    timeMs = item.enqueuedMs;
    latestMs = std::max(latestMs, timeMs);
  }
  out = PutSum(SumOfTable(firstKey, {block->data(), out}), out);
  std::uint64_t key = firstKey;
  for (const NewItem& item : items) out = PutSum(SumOfItem(key++, item.enqueuedMs, item.data), out);
  block->resize(static_cast<std::size_t>(out - block->data()));
  for (const NewItem& item : items) block->insert(block->end(), item.data.begin(), item.data.end());
  return latestMs;
}

bool BlockItem::IsIntact() const { return isComplete && sum == SumOfItem(key, enqueuedMs, data); }

std::optional<BlockReader> BlockReader::Open(std::uint64_t firstKey, std::span<const std::uint8_t> block) {
  if (block.empty() || block[0] != formatNumber) return std::nullopt;
  BlockReader reader;
  reader.firstKey_ = firstKey;
  std::uint64_t number = 0;
  std::span<const std::uint8_t> rest = block.subspan(1);
  // An item takes at least two bytes of the table.
  if (!TakeNumber(&rest, &reader.count_) || reader.count_ == 0 || reader.count_ > rest.size() / 2)
    return std::nullopt;
  if (!TakeNumber(&rest, &number)) return std::nullopt;
  reader.timeMs_ = FromZigzag(number);
  reader.table_ = rest;
  for (std::uint64_t i = 0; i < 2 * reader.count_; ++i) {
    if (!TakeNumber(&rest, &number)) return std::nullopt;
  }
  const std::size_t tableEnd = block.size() - rest.size();
  if (rest.size() < sumBytes * (1 + reader.count_) ||
      SumAt(rest, 0) != SumOfTable(firstKey, block.first(tableEnd)))
    return std::nullopt;
  reader.sums_ = rest.subspan(sumBytes, sumBytes * reader.count_);
  reader.data_ = rest.subspan(sumBytes * (1 + reader.count_));
  return reader;
}

bool BlockReader::Next(BlockItem* item) {
  if (read_ == count_) return false;
  std::uint64_t size = 0;
  std::uint64_t difference = 0;
  TakeNumber(&table_, &size);
  TakeNumber(&table_, &difference);
  timeMs_ = Plus(timeMs_, FromZigzag(difference));
  const bool isComplete = size <= data_.size();
  const std::size_t there = isComplete ? static_cast<std::size_t>(size) : data_.size();
  *item = {firstKey_ + read_, timeMs_, data_.first(there), SumAt(sums_, sumBytes * read_), isComplete};
  data_ = data_.subspan(there);
  ++read_;
  return true;
}

std::uint32_t SumOfRow(std::string_view text, std::uint64_t first, std::uint64_t second,
                       std::uint64_t third) {
  return Fold(XXH3_64bits(text.data(), text.size()) + third * 0x165667919e3779f9U, first, second);
}

}  // namespace veld_report::host
