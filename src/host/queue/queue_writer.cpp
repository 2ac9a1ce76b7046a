#include "host/queue/queue_writer.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <new>
#include <utility>

namespace veld_report::host {
namespace {

// The figures of a stored item.
QueueLedger Offered(std::size_t bytes) {
  const ItemCount item{1, static_cast<std::int64_t>(bytes)};
  return {.accepted = item, .waiting = item};
}

}  // namespace

void QueueWriter::Touch(BufferedQueue& queue, bool urgent) {
  if (urgent && !urgentSince_) urgentSince_ = Clock::now();
  if (queue.dirty_) return;
  if (dirty_.empty()) dirtySince_ = Clock::now();
  dirty_.push_back(&queue);
  queue.dirty_ = true;
}

void QueueWriter::SetPresence(BufferedQueue& queue, bool present) {
  Touch(queue);
  queue.present_ = present;
  queue.presence_ = present;
}

void QueueWriter::Adopt(BufferedQueue& queue, const QueueRow& row) {
  queue.id_ = row.id;
  if (!queue.presence_) queue.present_ = row.present;
  queue.ahead_.Forget();
  const std::lock_guard lock(figuresMutex_);
  queue.ledger_ = row.ledger;
  queue.ledger_ += queue.unwritten_;
  for (const Item& item : items_) {
    if (item.queue == &queue) queue.ledger_ += Offered(item.size);
  }
}

void QueueWriter::Book(BufferedQueue& queue, const QueueLedger& change) {
  Touch(queue);
  BookLater(queue, change);
}

void QueueWriter::BookLater(BufferedQueue& queue, const QueueLedger& change) {
  queue.unwritten_ += change;
  const std::lock_guard lock(figuresMutex_);
  queue.ledger_ += change;
}

void QueueWriter::IncludeBooked(BufferedQueue& queue) {
  if (queue.unwritten_ != QueueLedger{}) Touch(queue);
}

void QueueWriter::AddItem(BufferedQueue& queue, std::int64_t enqueuedMs, std::span<const std::uint8_t> data) {
  SetPresence(queue, true);
  items_.push_back({&queue, enqueuedMs, bytes_.size(), data.size()});
  try {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  } catch (...) {
    items_.pop_back();
    throw;
  }
  const std::lock_guard lock(figuresMutex_);
  queue.ledger_ += Offered(data.size());
}

void QueueWriter::DropLastItem() {
  const Item& item = items_.back();
  {
    const std::lock_guard lock(figuresMutex_);
    item.queue->ledger_ += -Offered(item.size);
  }
  bytes_.resize(item.offset);
  items_.pop_back();
}

std::vector<std::pair<const BufferedQueue*, ItemCount>> QueueWriter::RejectItems() {
  std::map<BufferedQueue*, ItemCount> lost;
  for (const Item& item : items_) lost[item.queue] += ItemCount{1, static_cast<std::int64_t>(item.size)};
  items_.clear();
  bytes_.clear();
  for (const auto& [queue, count] : lost) {
    queue->ledger_ += -QueueLedger{.accepted = count, .waiting = count};
    Book(*queue, {.accepted = count, .rejected = count});
  }
  TryDeletionsAlone();
  return {lost.begin(), lost.end()};
}

void QueueWriter::AddDelete(BufferedQueue& queue, std::uint64_t token, ItemCount item,
                            ItemCount QueueLedger::*kind) {
  Touch(queue, false);
  // Both or neither: an item that is hidden but never deleted would come back with the next process.
  deletes_.push_back({&queue, token, item, kind});
  try {
    deletedTokens_.insert(token);
  } catch (...) {
    deletes_.pop_back();
    throw;
  }
  if (kind == &QueueLedger::evicted) ++evictions_;
  deletedBytes_ += item.bytes;
  queue.ahead_.Drop(token);
  queue.unwritten_.Leave(kind, item);
  const std::lock_guard lock(figuresMutex_);
  queue.ledger_.Leave(kind, item);
}

void QueueWriter::AddRemoval(BufferedQueue& queue) {
  SetPresence(queue, false);
  removals_.reserve(removals_.size() + 1);
  ItemCount buffered;
  std::erase_if(items_, [&](const Item& item) {
    if (item.queue != &queue) return false;
    buffered += ItemCount{1, static_cast<std::int64_t>(item.size)};
    return true;
  });
  const ItemCount waiting = queue.ledger_.waiting;
  {
    const std::lock_guard lock(figuresMutex_);
    queue.ledger_.waiting = {};
    queue.ledger_.removed += waiting;
  }
  ItemCount inFile = waiting;
  inFile += -buffered;
  removals_.push_back({&queue, inFile});
  deletedBytes_ += inFile.bytes;
  queue.removalBuffered_ = true;
  queue.ahead_.Forget();
  queue.unwritten_.accepted += buffered;
  queue.unwritten_.removed += waiting;
  queue.unwritten_.waiting += -inFile;
}

const ItemRow* QueueWriter::NextInFile(BufferedQueue& queue, std::uint64_t after, std::size_t limitBytes) {
  if (!queue.CountsInFile()) return nullptr;
  while (const ItemRow* row = queue.ahead_.Next(file_, queue.id_, after, limitBytes)) {
    if (!IsDeleted(row->token)) return row;
    after = row->token;
  }
  return nullptr;
}

bool QueueWriter::Flush() {
  if (!IsDirty()) return true;
  // The second attempt covers a passing failure of the device, which would lose the buffer at the end of the
  // process.
  if (Try(true) || (error_->IsNoRoom() && Try(true))) {
    reserve_.Restore();
    return true;
  }
  // What makes room comes before what takes it.
  if (!deletes_.empty() || !removals_.empty()) TryDeletionsAlone();
  return false;
}

void QueueWriter::TryDeletionsAlone() {
  if (error_->IsNoRoom()) {
    reserve_.Release();
    try {
      // The log restarts at its beginning once all of it is in the file.
      file_.Checkpoint();
    } catch (const SqliteError&) {
      // There may still be room at the log's end.
    }
  }
  while (const std::size_t count = OldestDeletions()) {
    if (!TryDeletions(count)) break;
  }
  Try(false);
}

// How many deletions to write by themselves because all of them would take more than half a log; 0 if they
// wouldn't. Each overwrites the item's pages, and changes about one besides.
std::size_t QueueWriter::OldestDeletions() const {
  constexpr std::int64_t halfLog = std::int64_t{logPages} * storePageBytes / 2;
  std::int64_t bytes = 0;
  for (std::size_t i = 0; i < deletes_.size(); ++i) {
    bytes += deletes_[i].item.bytes + storePageBytes;
    if (bytes > halfLog) return std::max<std::size_t>(i, 1);
  }
  return 0;
}

bool QueueWriter::TryDeletions(std::size_t count) {
  try {
    WriteDeletions(std::span(deletes_).first(count));
  } catch (const SqliteError&) {
    Undo();
    return false;
  }
  deletes_.erase(deletes_.begin(), deletes_.begin() + static_cast<std::ptrdiff_t>(count));
  return true;
}

// The figures of what stays in the buffer stay there, too.
void QueueWriter::WriteDeletions(std::span<const Delete> oldest) {
  file_.Begin();
  for (BufferedQueue* queue : dirty_) queue->change_ = queue->correction_ = {};
  for (const Delete& removed : oldest) removed.queue->change_.Leave(removed.kind, removed.item);
  DeleteSingly(oldest);
  for (BufferedQueue* queue : dirty_) {
    if (queue->change_ == QueueLedger{}) continue;
    queue->change_ += queue->correction_;
    file_.UpdateQueue(queue->id_, std::nullopt, queue->change_);
  }
  file_.Commit();
  for (const Delete& removed : oldest) {
    removed.queue->unwritten_.Leave(removed.kind, -removed.item);
    removed.queue->ahead_.Drop(removed.token);
    deletedTokens_.erase(removed.token);
    if (removed.kind == &QueueLedger::evicted) --evictions_;
  }
  const std::lock_guard lock(figuresMutex_);
  for (BufferedQueue* queue : dirty_) queue->ledger_ += queue->correction_;
}

bool QueueWriter::Try(bool withItems) {
  try {
    Write(withItems);
    if (withItems) error_.reset();
    return true;
  } catch (const SqliteError& error) {
    Undo();
    if (withItems) error_ = error;
  } catch (const std::bad_alloc&) {
    Undo();
    if (withItems) error_.emplace(SQLITE_NOMEM, "out of memory");
  }
  return false;
}

void QueueWriter::Undo() noexcept {
  file_.Rollback();
  for (BufferedQueue* queue : added_) queue->id_ = 0;
  added_.clear();
  lastFailure_ = Clock::now();
}

void QueueWriter::Write(bool withItems) {
  file_.Begin();
  const bool deleted = DeleteRuns();
  if (!deleted) {
    file_.Rollback();
    file_.Begin();
  }
  for (BufferedQueue* queue : dirty_) {
    queue->change_ = queue->unwritten_;
    queue->correction_ = {};
    if (queue->id_ != 0) continue;
    added_.push_back(queue);
    queue->id_ = file_.AddQueue(queue->name_);
  }
  if (!deleted) DeleteSingly(deletes_);
  WriteRemovals();
  if (withItems) WriteItems();
  for (BufferedQueue* queue : dirty_) {
    queue->change_ += queue->correction_;
    file_.UpdateQueue(queue->id_, queue->presence_, queue->change_);
  }
  file_.Commit();
  Settle(withItems);
}

// A packet's tokens are mostly consecutive, and a range costs one search. Returns false if an item was
// already gone; with ranges it isn't known which.
bool QueueWriter::DeleteRuns() {
  std::ranges::sort(deletes_, {}, &Delete::token);
  for (std::size_t i = 0; i < deletes_.size();) {
    std::size_t end = i + 1;
    while (end < deletes_.size() && deletes_[end].token == deletes_[end - 1].token + 1) ++end;
    const auto count = static_cast<std::int64_t>(end - i);
    if (file_.DeleteRange(deletes_[i].token, deletes_[end - 1].token) != count) return false;
    i = end;
  }
  return true;
}

void QueueWriter::DeleteSingly(std::span<const Delete> deletes) {
  for (const Delete& removed : deletes) {
    if (file_.DeleteItem(removed.token)) continue;
    // Another process was faster and has counted it.
    removed.queue->correction_.Leave(removed.kind, -removed.item);
  }
}

void QueueWriter::WriteRemovals() {
  for (const Removal& removal : removals_) {
    ItemCount more = file_.DeleteItems(removal.queue->id_);
    more += -removal.expected;
    removal.queue->correction_.removed += more;
    removal.queue->correction_.waiting += -more;
  }
}

void QueueWriter::WriteItems() {
  newItems_.clear();
  for (const Item& item : items_) {
    newItems_.push_back(
        {item.queue->id_, item.enqueuedMs, std::span(bytes_).subspan(item.offset, item.size)});
    item.queue->change_ += Offered(item.size);
  }
  file_.InsertItems(newItems_);
}

void QueueWriter::Settle(bool withItems) {
  for (BufferedQueue* queue : dirty_) {
    {
      const std::lock_guard lock(figuresMutex_);
      queue->ledger_ += queue->correction_;
    }
    queue->unwritten_ = {};
    queue->dirty_ = false;
    queue->presence_.reset();
    queue->removalBuffered_ = false;
  }
  dirty_.clear();
  urgentSince_.reset();
  added_.clear();
  // They may have been read ahead again, and from here on nobody skips them.
  for (const Delete& removed : deletes_) removed.queue->ahead_.Drop(removed.token);
  deletes_.clear();
  evictions_ = 0;
  deletedTokens_.clear();
  removals_.clear();
  if (withItems) {
    for (const Item& item : items_) item.queue->ahead_.NoteInsertion();
    items_.clear();
    bytes_.clear();
  }
  for (const Item& item : items_) SetPresence(*item.queue, true);
}

}  // namespace veld_report::host
