// The readers' side of a store; see queue_store.h.
#include <algorithm>

#include "host/base/write_trace.h"
#include "host/queue/queue_refusal.h"
#include "host/queue/queue_store.h"
#include "host/queue/store_opening.h"

namespace veld_report::host {
namespace {

// Room for what is read ahead of all queues together, and what each queue gets of it.
constexpr std::size_t readAheadBytes = 1 << 20;
constexpr std::size_t leastReadAhead = 1 << 11;
constexpr std::size_t mostReadAhead = 1 << 16;

}  // namespace

void QueueStore::OpenReader(const std::string& name, ReaderState* reader) {
  const Refusal refusal = TakeRefusal();
  const std::lock_guard lock(mutex_);
  QueueState& queue = FindOrAdd(name);
  // From here on nothing may fail halfway: the queue keeps the reader's address.
  queue.readers.reserve(queue.readers.size() + 1);
  queue.evictions.reserve(queue.evictions.size() + 1);
  reader->queue = &queue;
  reader->thread = ThreadNumber();
  reader->evicting = refusal.store == id_ && refusal.queue == &queue;
  queue.readers.push_back(reader);
  if (reader->evicting) {
    queue.evictions.push_back({reader, reader->thread, refusal.item});
  } else {
    ++sendingReaders_;
  }
}

zel::ResultCode QueueStore::Read(ReaderState& reader, zel::vector_t<std::uint8_t>* data,
                                 std::uint64_t* token) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  // A failure is no reason to hold back what the file has: delivering goes on while a disk is full. Who makes
  // room needs the oldest items, and those that are buffered are the youngest.
  if (options_.shared || (!reader.evicting && writer_.BufferedItems() != 0)) Flush();
  Refresh();
  if (!reader.evicting && !HoldsLease()) return zel::eNotFound;
  try {
    if (ClaimNext(reader, data, token)) return zel::sOk;
    if (reader.evicting && writer_.BufferedItems() != 0) {
      Flush();
      if (ClaimNext(reader, data, token)) return zel::sOk;
    }
    CorrectWaiting(*reader.queue);
    return zel::eNotFound;
  } catch (const SqliteError& error) {
    NoteFailure("can't read an item: ", error);
    return zel::eUnspecifiedError;
  }
}

// The oldest item behind `after` that nobody holds; null if there is none.
const ItemRow* QueueStore::NextFree(QueueState& queue, std::uint64_t after) {
  if (queue.id == 0 || queue.removalBuffered) return nullptr;
  const std::size_t limitBytes = std::clamp(readAheadBytes / queues_.size(), leastReadAhead, mostReadAhead);
  while (const ItemRow* row = queue.ahead.Next(*file_, queue.id, after, limitBytes)) {
    if (!IsClaimed(queue, row->token) && !writer_.IsDeleted(row->token)) return row;
    after = row->token;
  }
  return nullptr;
}

bool QueueStore::IsClaimed(const QueueState& queue, std::uint64_t token) {
  return std::ranges::any_of(queue.readers,
                             [&](const ReaderState* reader) { return reader->claims.Contains(token); });
}

bool QueueStore::ClaimNext(ReaderState& reader, zel::vector_t<std::uint8_t>* data, std::uint64_t* token) {
  QueueState& queue = *reader.queue;
  while (const ItemRow* row = NextFree(queue, reader.cursor)) {
    reader.cursor = row->token;
    const auto bytes = static_cast<std::int64_t>(row->data.size());
    if (IsExpired(*row)) {
      const ItemCount item{1, bytes};
      writer_.AddDelete(queue, reader.cursor, item, &QueueLedger::expired);
      queue.ledger.Leave(&QueueLedger::expired, item);
      continue;
    }
    data->assign(row->data.data(), row->data.size());
    reader.claims.Add(row->token, bytes);
    *token = row->token;
    return true;
  }
  return false;
}

// A figure is a few bytes of a file that no checksum guards, and one that tells of items that aren't there
// would make a queue look full for ever. The structure of the file has been checked, so it is the figure that
// is wrong, and no loss is booked. Where the store is shared another process may be faster than a look here.
void QueueStore::CorrectWaiting(QueueState& queue) {
  const auto nothingIsThere = [&] {
    return queue.ledger.waiting != ItemCount{} &&
           std::ranges::all_of(queue.readers, [](const ReaderState* each) { return each->claims.Empty(); }) &&
           !NextFree(queue, 0);
  };
  if (options_.shared || options_.inspectOnly || !nothingIsThere() || !Flush() || !nothingIsThere()) return;
  const ItemCount untrue = queue.ledger.waiting;
  ItemCount accepted = queue.ledger.delivered;
  for (const ItemCount& part : {queue.ledger.evicted, queue.ledger.rejected, queue.ledger.removed}) {
    accepted += part;
  }
  accepted += -queue.ledger.accepted;
  for (QueueLedger* ledger : {&queue.ledger, &queue.unwritten}) {
    ledger->waiting += -untrue;
    ledger->accepted += accepted;
  }
  writer_.Touch(queue);
  CommitIfDue();
  Trace(failureLevel, "the ledger of queue " + queue.name + " counted " + std::to_string(untrue.items) +
                          " items (" + std::to_string(untrue.bytes) +
                          " bytes) that don't exist; the file was damaged, and the ledger is corrected");
}

bool QueueStore::IsExpired(const ItemRow& row) const {
  return options_.maxAge.count() > 0 && NowMs(options_) - row.enqueuedMs > options_.maxAge.count();
}

// One process at a time sends what is waiting, as long as it has readers.
bool QueueStore::HoldsLease() {
  if (!options_.shared || lease_) return true;
  try {
    lease_ = FileLock::Try(path_.string() + ".lease", FileLock::Kind::exclusive, nullptr);
  } catch (const StoreError& error) {
    Trace(failureLevel, error.what());
  }
  return static_cast<bool>(lease_);
}

zel::ResultCode QueueStore::Ack(ReaderState& reader, std::uint64_t token) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  const std::optional<std::int64_t> bytes = reader.claims.Take(token);
  if (!bytes) return zel::eNotFound;
  const ItemCount item{1, *bytes};
  const bool evicts = reader.evicting && reader.thread == ThreadNumber();
  const auto kind = evicts ? &QueueLedger::evicted : &QueueLedger::delivered;
  QueueState& queue = *reader.queue;
  writer_.AddDelete(queue, token, item, kind);
  queue.ledger.Leave(kind, item);
  CommitIfDue();
  return zel::sOk;
}

zel::ResultCode QueueStore::ReturnItem(ReaderState& reader, std::uint64_t token) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  const std::optional<std::int64_t> bytes = reader.claims.Take(token);
  if (!bytes) return zel::eNotFound;
  const ItemCount item{1, *bytes};
  QueueState& queue = *reader.queue;
  writer_.Touch(queue);
  queue.ledger.returned += item;
  queue.unwritten.returned += item;
  CommitIfDue();
  return zel::sOk;
}

void QueueStore::CloseReader(ReaderState& reader) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  QueueState& queue = *reader.queue;
  std::erase(queue.readers, &reader);
  if (!reader.evicting) --sendingReaders_;
  std::erase_if(queue.evictions, [&](const auto& eviction) { return eviction.reader == &reader; });
  if (reader.evicting && !options_.shared) return;
  queue.ahead.Shrink();
  Flush();
}

}  // namespace veld_report::host
