#include "host/queue/queue_writer.h"

#include <sqlite3.h>

#include <algorithm>
#include <map>
#include <new>
#include <utility>

#include "host/queue/block_scan.h"

namespace veld_report::host {
namespace {

// A larger item stands alone.
constexpr std::size_t maxBlockBytes = std::size_t{64} * 1024;
// A block of this size stays within a page.
constexpr std::size_t pageBlockBytes = 4000;
// So many blocks of up to this size are made into one.
constexpr std::size_t mergedBlocks = 4;
constexpr std::size_t smallBlockBytes = 8000;
// What an item takes in a block besides its bytes; a little more than that for small items.
constexpr std::size_t itemOverhead = 8;
// On a full disk so many blocks are deleted at once. They fit into the reserve even if they are overwritten.
constexpr std::size_t fewBlocks = 8;
// So often a damaged place is looked at again because another process may just have changed it.
constexpr int maxBurials = 3;

ItemCount One(std::size_t bytes) { return {1, static_cast<std::int64_t>(bytes)}; }

// Counts what is stored, or with a negative count what isn't any more.
void Offer(QueueLedger* ledger, ItemCount count) {
  ledger->accepted += count;
  ledger->waiting += count;
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
  queue.positions_ = row.positions;
  if (!queue.presence_) queue.present_ = row.present;
  const std::lock_guard lock(figuresMutex_);
  queue.ledger_ = row.ledger;
  queue.ledger_ += queue.unwritten_;
  for (const Item& item : items_) {
    if (item.queue == &queue) Offer(&queue.ledger_, One(item.size));
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
  items_.push_back({&queue, enqueuedMs, bytes_.size(), data.size(), queue.lastItem_});
  try {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  } catch (...) {
    items_.pop_back();
    throw;
  }
  queue.lastItem_ = items_.size() - 1;
  const std::lock_guard lock(figuresMutex_);
  Offer(&queue.ledger_, One(data.size()));
}

void QueueWriter::DropLastItem() {
  const Item& item = items_.back();
  {
    const std::lock_guard lock(figuresMutex_);
    Offer(&item.queue->ledger_, -One(item.size));
  }
  item.queue->lastItem_ = item.previous;
  bytes_.resize(item.offset);
  items_.pop_back();
}

std::vector<std::pair<const BufferedQueue*, ItemCount>> QueueWriter::RejectItems() {
  std::map<BufferedQueue*, ItemCount> lost;
  for (const Item& item : items_) {
    lost[item.queue] += One(item.size);
    item.queue->lastItem_ = BufferedQueue::none;
  }
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
  // It was damaged, or another process was faster. Then it has been counted.
  if (!queue.positions_.HasItem(PositionOf(token))) return;
  Touch(queue, false);
  // Both or neither: an item that is hidden but never deleted would come back with the next process.
  deletes_.push_back({&queue, PositionOf(token), item, kind});
  try {
    queue.deleted_.Add(PositionOf(token));
  } catch (...) {
    deletes_.pop_back();
    throw;
  }
  if (kind == &QueueLedger::evicted) ++evictions_;
  deletedBytes_ += item.bytes;
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
    buffered += One(item.size);
    return true;
  });
  RelinkItems();
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
  EndReading(queue);
  queue.unwritten_.accepted += buffered;
  queue.unwritten_.removed += waiting;
  queue.unwritten_.waiting += -inFile;
}

void QueueWriter::RelinkItems() {
  for (BufferedQueue* queue : dirty_) queue->lastItem_ = BufferedQueue::none;
  for (std::size_t i = 0; i < items_.size(); ++i)
    items_[i].previous = std::exchange(items_[i].queue->lastItem_, i);
}

const ItemRow* QueueWriter::NextInFile(BufferedQueue& queue, std::uint64_t after, std::size_t limitBytes) {
  if (queue.id_ == 0 || queue.removalBuffered_) return nullptr;
  std::uint64_t position = PositionOf(after) + 1;
  for (int burials = 0;; position = queue.deleted_.NextOutside(position)) {
    position = queue.positions_.NextItem(position);
    if (position > queue.positions_.last) return nullptr;
    if (queue.deleted_.Contains(position)) continue;
    const std::uint64_t key = KeyOf(queue.id_, position);
    if (queue.ahead_.Find(key) || ReadFrom(queue, key, limitBytes)) return queue.ahead_.Find(key);
    if (access_ != Access::inspectOnly && ++burials > maxBurials)
      throw SqliteError(SQLITE_CORRUPT, "an item of queue " + queue.name_ + " can't be found");
    Bury(queue, position);
  }
}

bool QueueWriter::ReadFrom(BufferedQueue& queue, std::uint64_t key, std::size_t limitBytes) {
  readAheadBytes_ -= queue.ahead_.Memory();
  try {
    const bool found = queue.ahead_.Fill(file_, key, limitBytes);
    readAheadBytes_ += queue.ahead_.Memory();
    return found;
  } catch (...) {
    queue.ahead_.Shrink();
    throw;
  }
}

// Something damaged stands at the position. The queue is read whole, and everything in it that is damaged
// leaves it.
void QueueWriter::Bury(BufferedQueue& queue, std::uint64_t position) {
  if (access_ == Access::inspectOnly) {
    queue.deleted_.Add(position);
    return;
  }
  if (!Flush()) throw SqliteError(*error_);
  ItemCount lost;
  try {
    file_.Begin();
    lost = WriteBurial(queue);
    file_.Commit();
  } catch (...) {
    file_.Rollback();
    throw;
  }
  queue.positions_ = std::move(queue.next_);
  if (lost == ItemCount{}) return;
  {
    const std::lock_guard lock(figuresMutex_);
    queue.ledger_ += QueueLedger{.removed = lost, .waiting = -lost, .damaged = lost};
  }
  onDamage_(queue, lost);
}

ItemCount QueueWriter::WriteBurial(BufferedQueue& queue) {
  const QueueRow row = file_.LoadQueue(queue.id_);
  queue.positions_ = queue.next_ = row.positions;
  const QueueScan scan = ScanQueue(file_.Connection(), queue.id_, row.positions);
  if (scan.damaged.Empty()) return {};
  // The bytes of an item whose table is damaged are what the others leave.
  const ItemCount lost{static_cast<std::int64_t>(scan.damaged.Count()),
                       std::max<std::int64_t>(row.ledger.waiting.bytes - scan.intact.bytes, 0)};
  queue.next_.Remove(scan.damaged);
  queue.change_ = {.removed = lost, .waiting = -lost, .damaged = lost};
  WritePositions(queue, true);
  return lost;
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
  if (Try(false)) Sweep();
}

// Deletes the blocks of which nothing is left, a few in each transaction. What fails here is repeated when
// more of the queue leaves.
void QueueWriter::Sweep() {
  try {
    for (const DeadRange& dead : dead_) {
      for (bool isDone = false; !isDone;) {
        file_.Begin();
        if (dead.overwrite) file_.OverwriteDeleted(true);
        isDone = file_.DeleteBlocks(dead.queueId, dead.range, dead.last, fewBlocks);
        file_.Commit();
      }
    }
  } catch (const SqliteError&) {
    file_.Rollback();
  }
  file_.OverwriteDeleted(false);
  dead_.clear();
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
  dead_.clear();
  lastFailure_ = Clock::now();
}

void QueueWriter::Write(bool withItems) {
  file_.Begin();
  for (BufferedQueue* queue : dirty_) {
    queue->change_ = queue->unwritten_;
    queue->correction_ = {};
    LoadPositions(*queue);
  }
  if (access_ == Access::shared) CorrectDeletions();
  for (BufferedQueue* queue : dirty_) queue->next_.Remove(queue->deleted_);
  WriteRemovals();
  for (BufferedQueue* queue : dirty_) {
    if (withItems) WriteItems(*queue);
    queue->change_ += queue->correction_;
    WritePositions(*queue, withItems);
  }
  file_.Commit();
  Settle(withItems);
}

void QueueWriter::LoadPositions(BufferedQueue& queue) {
  if (queue.id_ != 0 && access_ != Access::shared) {
    queue.next_ = queue.positions_;
    return;
  }
  if (queue.id_ == 0) added_.push_back(&queue);
  const QueueRow row = queue.id_ == 0 ? file_.AddQueue(queue.name_) : file_.LoadQueue(queue.id_);
  queue.id_ = row.id;
  queue.positions_ = queue.next_ = row.positions;
  queue.waitingInFile_ = row.ledger.waiting;
  queue.isYoungestFull_ = false;
  queue.smallBlocks_ = 0;
}

// Another process may have been faster, and has counted the item.
void QueueWriter::CorrectDeletions() {
  for (const Delete& removed : deletes_) {
    BufferedQueue& queue = *removed.queue;
    if (queue.next_.HasItem(removed.position)) {
      queue.waitingInFile_ += -removed.item;
    } else {
      queue.correction_.Leave(removed.kind, -removed.item);
    }
  }
}

void QueueWriter::WriteRemovals() {
  for (const Removal& removal : removals_) {
    BufferedQueue& queue = *removal.queue;
    queue.next_.RemoveAll();
    if (access_ != Access::shared) continue;
    ItemCount more = queue.waitingInFile_;
    more += -removal.expected;
    queue.correction_.removed += more;
    queue.correction_.waiting += -more;
  }
}

void QueueWriter::WriteItems(BufferedQueue& queue) {
  if (queue.lastItem_ == BufferedQueue::none) return;
  newItems_.clear();
  std::size_t bytes = 0;
  for (std::size_t i = queue.lastItem_; i != BufferedQueue::none; i = items_[i].previous) {
    const Item& item = items_[i];
    bytes += item.size + itemOverhead;
    newItems_.push_back({item.enqueuedMs, std::span(bytes_).subspan(item.offset, item.size)});
    Offer(&queue.change_, One(item.size));
  }
  std::ranges::reverse(newItems_);
  if (!ExtendYoungest(queue, bytes)) {
    if (queue.smallBlocks_ == mergedBlocks || bytes > smallBlockBytes) MergeSmall(queue);
    if (bytes <= smallBlockBytes && queue.smallBlocks_++ == 0) queue.firstSmall_ = queue.next_.last + 1;
    queue.isYoungestFull_ = AddBlocks(queue) > pageBlockBytes;
  }
  queue.next_.last += newItems_.size();
}

// In a queue that only grows, small blocks become a larger one, which is cheaper to read and to delete.
void QueueWriter::MergeSmall(BufferedQueue& queue) {
  if (std::exchange(queue.smallBlocks_, 0) < mergedBlocks || queue.next_.front >= queue.firstSmall_) return;
  file_.MergeBlocks(KeyOf(queue.id_, queue.firstSmall_), KeyOf(queue.id_, queue.next_.last));
}

// Returns false if the youngest block of the queue doesn't stay within a page with the new items.
bool QueueWriter::ExtendYoungest(const BufferedQueue& queue, std::size_t bytes) {
  if (queue.isYoungestFull_ || bytes > pageBlockBytes || queue.next_.front == queue.next_.last) return false;
  const auto youngest = file_.FindBlock(KeyOf(queue.id_, queue.next_.last));
  const std::uint64_t firstKey = youngest ? youngest->key : 0;
  const bool fits = youngest && youngest->data.size() + bytes <= pageBlockBytes;
  file_.Finish();
  auto items = fits ? file_.CopyBlock(firstKey) : std::nullopt;
  if (!items || PositionOf(firstKey) + items->Count() != queue.next_.last + 1) return false;
  for (const NewItem& item : newItems_) items->Add(item.enqueuedMs, item.data);
  file_.ReplaceBlock(firstKey, items->Items());
  return true;
}

// Returns the size of the last one.
std::size_t QueueWriter::AddBlocks(const BufferedQueue& queue) {
  std::uint64_t firstKey = KeyOf(queue.id_, queue.next_.last + 1);
  std::size_t size = 0;
  for (std::span<const NewItem> items = newItems_; !items.empty();) {
    std::size_t count = 1;
    std::size_t bytes = items[0].data.size();
    while (count < items.size()) {
      bytes += items[count].data.size() + itemOverhead;
      if (bytes > maxBlockBytes) break;
      ++count;
    }
    size = file_.AddBlock(firstKey, items.first(count));
    firstKey += count;
    items = items.subspan(count);
  }
  return size;
}

// With `withSweep` also deletes the blocks of which nothing is left.
void QueueWriter::WritePositions(BufferedQueue& queue, bool withSweep) {
  const QueuePositions& before = queue.positions_;
  const QueuePositions& after = queue.next_;
  file_.UpdateQueue(queue.id_, queue.name_, after, queue.presence_, queue.change_);
  if (before.gone != after.gone) file_.ReplaceGone(queue.id_, before.gone, after.gone);
  const std::size_t first = dead_.size();
  const auto note = [&](RangeSet::Range range) {
    dead_.push_back({queue.id_, range, after.last, queue.removalBuffered_});
  };
  if (before.front != after.front) note({1, after.front});
  for (const RangeSet::Range& range : after.gone.Ranges()) {
    if (std::ranges::find(before.gone.Ranges(), range) == before.gone.Ranges().end()) note(range);
  }
  if (!withSweep) return;
  if (queue.removalBuffered_) file_.OverwriteDeleted(true);
  for (std::size_t i = first; i < dead_.size(); ++i)
    file_.DeleteBlocks(queue.id_, dead_[i].range, after.last, SIZE_MAX);
  if (queue.removalBuffered_) file_.OverwriteDeleted(false);
  dead_.resize(first);
}

void QueueWriter::Settle(bool withItems) {
  for (BufferedQueue* queue : dirty_) {
    {
      const std::lock_guard lock(figuresMutex_);
      queue->ledger_ += queue->correction_;
    }
    queue->positions_ = std::move(queue->next_);
    queue->deleted_.Clear();
    queue->unwritten_ = {};
    queue->dirty_ = false;
    queue->presence_.reset();
    queue->removalBuffered_ = false;
    if (withItems) queue->lastItem_ = BufferedQueue::none;
  }
  dirty_.clear();
  urgentSince_.reset();
  added_.clear();
  deletes_.clear();
  evictions_ = 0;
  removals_.clear();
  if (withItems) {
    items_.clear();
    bytes_.clear();
  }
  for (const Item& item : items_) SetPresence(*item.queue, true);
}

}  // namespace veld_report::host
