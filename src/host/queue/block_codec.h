// The bytes of a block: a run of items of one queue, with a sum over its table and one over each item.
// docs/store.md, "Layout 3", describes the format.
//
// A damaged table costs the items of its block, a damaged item only itself. Nothing in a block is trusted:
// any bytes can be opened.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace veld_report::host {

struct NewItem {
  std::int64_t enqueuedMs = 0;
  std::span<const std::uint8_t> data;
};

// Items of one queue that are to become a block. The bytes are copied.
class BlockBuilder {
 public:
  void Add(std::int64_t enqueuedMs, std::span<const std::uint8_t> data);
  bool Empty() const { return items_.empty(); }
  std::size_t Count() const { return items_.size(); }
  // About the size of the block.
  std::size_t Bytes() const { return bytes_.size() + 8 * items_.size(); }
  // Views of the items, in their order. Valid until the next change.
  std::vector<NewItem> Items() const;
  void Clear();

 private:
  struct Item {
    std::int64_t enqueuedMs;
    std::size_t size;
  };
  std::vector<Item> items_;
  std::vector<std::uint8_t> bytes_;
};

// Replaces `*block` by the bytes of a block of these items, at least one. `firstKey`: of the first; those of
// the others follow (item_key.h). Returns the latest of their times.
std::int64_t EncodeBlock(std::uint64_t firstKey, std::span<const NewItem> items,
                         std::vector<std::uint8_t>* block);

struct BlockItem {
  std::uint64_t key = 0;
  std::int64_t enqueuedMs = 0;
  std::span<const std::uint8_t> data;  // into the block
  std::uint32_t sum = 0;
  bool isComplete = false;  // all of its bytes are within the block

  // Reads all of the data.
  bool IsIntact() const;
};

// Reads a block from its beginning. The block's bytes must outlive it.
class BlockReader {
 public:
  // Nothing if the table is damaged, or belongs to another key.
  static std::optional<BlockReader> Open(std::uint64_t firstKey, std::span<const std::uint8_t> block);

  std::uint64_t FirstKey() const { return firstKey_; }
  std::uint64_t LastKey() const { return firstKey_ + count_ - 1; }
  // The next item; false after the last one.
  bool Next(BlockItem* item);

 private:
  std::uint64_t firstKey_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t read_ = 0;
  std::int64_t timeMs_ = 0;
  std::span<const std::uint8_t> table_;  // what isn't read of it
  std::span<const std::uint8_t> sums_;
  std::span<const std::uint8_t> data_;  // what isn't read of it
};

// A sum over a row that has no block around it.
std::uint32_t SumOfRow(std::string_view text, std::uint64_t first, std::uint64_t second, std::uint64_t third);

}  // namespace veld_report::host
