// The readers' side of a store; see queue_store.h.
#include "host/base/trace_line.h"
#include "host/queue/queue_refusal.h"
#include "host/queue/queue_store.h"
#include "host/queue/store_opening.h"

namespace veld_report::host {

void QueueStore::OpenReader(const std::string& name, ReaderState* reader) {
  const Refusal refusal = TakeRefusal();
  const std::lock_guard lock(mutex_);
  QueueState& queue = FindOrAdd(name);
  reader->queue = &queue;
  reader->generation = queue.generation;
  reader->thread = ThreadNumber();
  reader->evicting = refusal.store == id_ && refusal.queue == &queue;
  if (!reader->evicting) ++sendingReaders_;
  if (reader->evicting) queue.evictions.push_back({reader, reader->thread, refusal.item});
}

zel::ResultCode QueueStore::Read(ReaderState& reader, zel::vector_t<std::uint8_t>* data,
                                 std::uint64_t* token) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  // A failure is no reason to hold back what the file has: delivering goes on while a disk is full.
  Flush();
  Refresh();
  if (!reader.evicting && !HoldsLease()) return zel::eNotFound;
  try {
    return ClaimNext(reader, data, token) ? zel::sOk : zel::eNotFound;
  } catch (const SqliteError& error) {
    Trace(failureLevel, std::string("can't read an item: ") + error.what());
    return zel::eUnspecifiedError;
  }
}

bool QueueStore::ClaimNext(ReaderState& reader, zel::vector_t<std::uint8_t>* data, std::uint64_t* token) {
  QueueState& queue = *reader.queue;
  if (queue.id == 0 || queue.removalBuffered) return false;
  if (reader.generation != queue.generation) {
    reader.claims.clear();
    reader.generation = queue.generation;
  }
  while (const auto row = file_->NextItem(queue.id, reader.cursor)) {
    struct Finish {
      StoreFile& file;
      ~Finish() { file.Finish(); }
    } const finish{*file_};
    reader.cursor = row->token;
    if (queue.claimed.contains(row->token) || writer_.IsDeleted(row->token)) continue;
    if (IsExpired(*row)) {
      const ItemCount item{1, static_cast<std::int64_t>(row->data.size())};
      writer_.AddDelete(queue, row->token, item, &QueueLedger::expired);
      queue.ledger.Leave(&QueueLedger::expired, item);
      continue;
    }
    data->assign(row->data.data(), row->data.size());
    reader.claims.emplace(row->token, static_cast<std::int64_t>(row->data.size()));
    queue.claimed.insert(row->token);
    *token = row->token;
    return true;
  }
  return false;
}

bool QueueStore::IsExpired(const ItemRow& row) const {
  return options_.maxAge.count() > 0 && NowMs(options_) - row.enqueuedMs > options_.maxAge.count();
}

// One process at a time sends what is waiting, as long as it has readers.
bool QueueStore::HoldsLease() {
  if (!options_.shared || lease_) return true;
  try {
    lease_ = FileLock::Try(path_.string() + ".lease", FileLock::Kind::kExclusive, nullptr);
  } catch (const StoreError& error) {
    Trace(failureLevel, error.what());
  }
  return static_cast<bool>(lease_);
}

bool QueueStore::ReleaseClaim(ReaderState& reader, std::uint64_t token, std::int64_t* bytes) {
  if (reader.generation != reader.queue->generation) return false;
  const auto claim = reader.claims.find(token);
  if (claim == reader.claims.end()) return false;
  *bytes = claim->second;
  reader.claims.erase(claim);
  reader.queue->claimed.erase(token);
  return true;
}

zel::ResultCode QueueStore::Ack(ReaderState& reader, std::uint64_t token) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  ItemCount item{1, 0};
  if (!ReleaseClaim(reader, token, &item.bytes)) return zel::eNotFound;
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
  ItemCount item{1, 0};
  if (!ReleaseClaim(reader, token, &item.bytes)) return zel::eNotFound;
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
  if (reader.generation == queue.generation) {
    for (const auto& claim : reader.claims) queue.claimed.erase(claim.first);
  }
  reader.claims.clear();
  if (!reader.evicting) --sendingReaders_;
  std::erase_if(queue.evictions, [&](const auto& eviction) { return eviction.reader == &reader; });
  Flush();
}

}  // namespace veld_report::host
