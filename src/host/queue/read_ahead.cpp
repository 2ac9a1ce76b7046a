#include "host/queue/read_ahead.h"

#include <algorithm>

namespace veld_report::host {
namespace {

constexpr std::size_t maxRows = 128;

}  // namespace

const ItemRow* ReadAhead::Next(StoreFile& file, std::int64_t queueId, std::uint64_t after,
                               std::size_t limitBytes) {
  const Row* row = Find(after);
  if (!row) {
    if (valid_ && after >= begin_ && reachesEnd_) return nullptr;
    Fill(file, queueId, after, limitBytes);
    row = Find(after);
    if (!row) return nullptr;
  }
  found_ = {row->token, row->enqueuedMs, std::span(bytes_).subspan(row->offset, row->size)};
  return &found_;
}

const ReadAhead::Row* ReadAhead::Find(std::uint64_t after) const {
  if (!valid_ || after < begin_) return nullptr;
  const auto first = rows_.begin() + static_cast<std::ptrdiff_t>(first_);
  auto row = first == rows_.end() || first->token > after
                 ? first
                 : std::ranges::upper_bound(first, rows_.end(), after, {}, &Row::token);
  while (row != rows_.end() && row->dropped) ++row;
  return row == rows_.end() ? nullptr : &*row;
}

void ReadAhead::Fill(StoreFile& file, std::int64_t queueId, std::uint64_t after, std::size_t limitBytes) {
  const bool continues = valid_ && after >= begin_;
  const bool nothingLeft = first_ == rows_.size();
  // If no item is left, the range can still start where it did before.
  const std::uint64_t begin = continues && nothingLeft ? begin_ : after;
  const std::uint64_t from = continues ? std::max(after, end_) : after;
  valid_ = false;
  rows_.clear();
  first_ = 0;
  bytes_.clear();
  if (bytes_.capacity() > 2 * limitBytes) bytes_.shrink_to_fit();
  begin_ = begin;
  end_ = from;
  reachesEnd_ = false;
  try {
    reachesEnd_ = file.ReadItems(queueId, from, maxRows, [&](const ItemRow& row) {
      if (!rows_.empty() && bytes_.size() + row.data.size() > limitBytes) return false;
      const std::size_t offset = bytes_.size();
      bytes_.insert(bytes_.end(), row.data.begin(), row.data.end());
      rows_.push_back({row.token, row.enqueuedMs, offset, row.data.size(), false});
      end_ = row.token;
      return true;
    });
  } catch (const SqliteError&) {
    // The rows before an unreadable place are good. The failure is reported when its turn comes.
    if (rows_.empty()) throw;
  }
  valid_ = true;
}

void ReadAhead::Drop(std::uint64_t token) {
  if (!valid_ || first_ == rows_.size()) return;
  auto row = rows_.begin() + static_cast<std::ptrdiff_t>(first_);
  if (row->token != token) row = std::ranges::lower_bound(row, rows_.end(), token, {}, &Row::token);
  if (row == rows_.end() || row->token != token) return;
  row->dropped = true;
  while (first_ < rows_.size() && rows_[first_].dropped) ++first_;
}

void ReadAhead::Forget() {
  valid_ = false;
  Shrink();
}

void ReadAhead::Shrink() {
  // The remaining rows are read again when they are needed.
  if (first_ != rows_.size()) valid_ = false;
  rows_ = {};
  bytes_ = {};
  first_ = 0;
}

}  // namespace veld_report::host
