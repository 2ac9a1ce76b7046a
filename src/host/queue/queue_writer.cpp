#include "host/queue/queue_writer.h"

#include <sqlite3.h>

#include <algorithm>
#include <new>

namespace veld_report::host {

void QueueWriter::Touch(QueueState& queue) {
  if (queue.dirty) return;
  if (dirty_.empty()) dirtySince_ = Clock::now();
  dirty_.push_back(&queue);
  queue.dirty = true;
}

void QueueWriter::SetPresence(QueueState& queue, bool present) {
  Touch(queue);
  queue.present = present;
  queue.presence = present;
}

QueueLedger QueueWriter::WithBuffered(const QueueState& queue, const QueueLedger& row) const {
  QueueLedger ledger = row;
  ledger += queue.unwritten;
  for (const Item& item : items_) {
    if (item.queue != &queue) continue;
    const ItemCount count{1, static_cast<std::int64_t>(item.size)};
    ledger.accepted += count;
    ledger.waiting += count;
  }
  return ledger;
}

void QueueWriter::AddItem(QueueState& queue, std::int64_t enqueuedMs, std::span<const std::uint8_t> data) {
  SetPresence(queue, true);
  items_.push_back({&queue, enqueuedMs, bytes_.size(), data.size()});
  try {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  } catch (...) {
    items_.pop_back();
    throw;
  }
}

void QueueWriter::DropLastItem() {
  bytes_.resize(items_.back().offset);
  items_.pop_back();
}

void QueueWriter::AddDelete(QueueState& queue, std::uint64_t token, ItemCount item,
                            ItemCount QueueLedger::*kind) {
  Touch(queue);
  deletedTokens_.insert(token);
  deletes_.push_back({&queue, token, item, kind});
  if (kind == &QueueLedger::evicted) ++evictions_;
  queue.ahead.Drop(token);
  queue.unwritten.Leave(kind, item);
}

ItemCount QueueWriter::AddRemoval(QueueState& queue, ItemCount waiting) {
  SetPresence(queue, false);
  removals_.reserve(removals_.size() + 1);
  ItemCount buffered;
  std::erase_if(items_, [&](const Item& item) {
    if (item.queue != &queue) return false;
    buffered += ItemCount{1, static_cast<std::int64_t>(item.size)};
    return true;
  });
  ItemCount inFile = waiting;
  inFile += -buffered;
  removals_.push_back({&queue, inFile});
  queue.removalBuffered = true;
  queue.ahead.Forget();
  queue.unwritten.accepted += buffered;
  queue.unwritten.removed += waiting;
  queue.unwritten.waiting += -inFile;
  return buffered;
}

bool QueueWriter::Flush() {
  if (!IsDirty()) return true;
  // The second try is for a device's passing failure, which would lose the buffer at the end of the process.
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
      // The log starts again at its beginning when all of it is in the file.
      file_.Checkpoint();
    } catch (const SqliteError&) {
      // Then there may be room at the log's end.
    }
  }
  Try(false);
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
  for (QueueState* queue : added_) queue->id = 0;
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
  for (QueueState* queue : dirty_) {
    queue->change = queue->unwritten;
    queue->correction = {};
    if (queue->id != 0) continue;
    added_.push_back(queue);
    queue->id = file_.AddQueue(queue->name);
  }
  if (!deleted) DeleteSingly();
  WriteRemovals();
  if (withItems) WriteItems();
  for (QueueState* queue : dirty_) {
    queue->change += queue->correction;
    file_.UpdateQueue(queue->id, queue->presence, queue->change);
  }
  file_.Commit();
  Settle(withItems);
}

// A packet's tokens mostly follow each other without a gap, and a range costs one search. Returns false if
// something wasn't there any more: which one, ranges don't tell.
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

void QueueWriter::DeleteSingly() {
  for (const Delete& removed : deletes_) {
    if (file_.DeleteItem(removed.token)) continue;
    // Another process was faster, and has counted it.
    removed.queue->correction.Leave(removed.kind, -removed.item);
  }
}

void QueueWriter::WriteRemovals() {
  for (const Removal& removal : removals_) {
    ItemCount more = file_.DeleteItems(removal.queue->id);
    more += -removal.expected;
    removal.queue->correction.removed += more;
    removal.queue->correction.waiting += -more;
  }
}

void QueueWriter::WriteItems() {
  newItems_.clear();
  for (const Item& item : items_) {
    newItems_.push_back({item.queue->id, item.enqueuedMs, std::span(bytes_).subspan(item.offset, item.size)});
    const ItemCount count{1, static_cast<std::int64_t>(item.size)};
    item.queue->change.accepted += count;
    item.queue->change.waiting += count;
  }
  file_.InsertItems(newItems_);
}

void QueueWriter::Settle(bool withItems) {
  for (QueueState* queue : dirty_) {
    queue->ledger += queue->correction;
    queue->unwritten = {};
    queue->dirty = false;
    queue->presence.reset();
    queue->removalBuffered = false;
  }
  dirty_.clear();
  added_.clear();
  // What has been read ahead since may hold them again, and nobody skips them from here on.
  for (const Delete& removed : deletes_) removed.queue->ahead.Drop(removed.token);
  deletes_.clear();
  evictions_ = 0;
  deletedTokens_.clear();
  removals_.clear();
  if (withItems) {
    for (const Item& item : items_) item.queue->ahead.NoteInsertion();
    items_.clear();
    bytes_.clear();
  }
  for (const Item& item : items_) SetPresence(*item.queue, true);
}

}  // namespace veld_report::host
