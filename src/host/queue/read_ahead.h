// ReadAhead: the next items of one queue, copied from the block in which they stand.
//
// A statement for each item would cost a read transaction, two locks on the file and a decoded table each
// time. The item of a position never changes, so what was read stays right whatever is written; whether an
// item is still there, others know. One thread at a time; queue_store.h locks.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "host/queue/store_file.h"

namespace veld_report::host {

// A view, valid until its source reads again.
struct ItemRow {
  std::uint64_t token = 0;  // its key (item_key.h)
  std::int64_t enqueuedMs = 0;
  std::span<const std::uint8_t> data;
};

class ReadAhead {
 public:
  // The item of that key; null if it hasn't been read. The result is valid until the next call.
  const ItemRow* Find(std::uint64_t key);
  // Reads the item of that key and those after it in the same block: `limitBytes` of memory, or one larger
  // item. Returns false if the item isn't there or is damaged. Throws SqliteError.
  bool Fill(StoreFile& file, std::uint64_t key, std::size_t limitBytes);
  std::size_t Memory() const { return bytes_.capacity() + rows_.capacity() * sizeof(Row); }
  // Frees the memory.
  void Shrink();

 private:
  struct Row {
    std::int64_t enqueuedMs;
    std::size_t offset;  // into bytes_
    std::size_t size;
  };

  std::uint64_t firstKey_ = 0;
  std::vector<Row> rows_;  // from firstKey_ on
  std::vector<std::uint8_t> bytes_;
  ItemRow found_;
};

}  // namespace veld_report::host
