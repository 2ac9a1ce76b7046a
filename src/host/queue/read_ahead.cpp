#include "host/queue/read_ahead.h"

namespace veld_report::host {

const ItemRow* ReadAhead::Find(std::uint64_t key) {
  if (key < firstKey_ || key - firstKey_ >= rows_.size()) return nullptr;
  const Row& row = rows_[key - firstKey_];
  found_ = {key, row.enqueuedMs, std::span(bytes_).subspan(row.offset, row.size)};
  return &found_;
}

bool ReadAhead::Fill(StoreFile& file, std::uint64_t key, std::size_t limitBytes) {
  rows_.clear();
  bytes_.clear();
  if (Memory() > 2 * limitBytes) Shrink();
  firstKey_ = key;
  const auto stored = file.FindBlock(key);
  auto block = stored ? BlockReader::Open(stored->key, stored->data) : std::nullopt;
  BlockItem item;
  while (block && block->Next(&item)) {
    if (item.key < key) continue;
    const std::size_t memory = bytes_.size() + item.data.size() + sizeof(Row) * rows_.size();
    // What is damaged is noticed when its turn comes.
    if ((!rows_.empty() && memory > limitBytes) || !item.IsIntact()) break;
    rows_.push_back({item.enqueuedMs, bytes_.size(), item.data.size()});
    bytes_.insert(bytes_.end(), item.data.begin(), item.data.end());
  }
  file.Finish();
  return !rows_.empty();
}

void ReadAhead::Shrink() {
  // An assignment of {} would keep the memory.
  std::vector<Row>().swap(rows_);
  std::vector<std::uint8_t>().swap(bytes_);
}

}  // namespace veld_report::host
