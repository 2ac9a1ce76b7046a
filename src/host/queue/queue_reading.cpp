// The reading side of a store; see queue_store.h.
#include <algorithm>
#include <utility>

#include "host/base/write_trace.h"
#include "host/queue/queue_service.h"
#include "host/queue/queue_store.h"
#include "host/queue/store_opening.h"

namespace veld_report::host {
namespace {

// Memory for reading ahead over all queues, and the limits for each queue. A block of the usual size fits.
constexpr std::size_t readAheadBytes = 1 << 20;
constexpr std::size_t minReadAhead = 1 << 11;
constexpr std::size_t maxReadAhead = 80 << 10;
// The share of what is left of it that one queue may take.
constexpr std::size_t readAheadShare = 8;
// Most visits are shorter and don't ask.
constexpr std::size_t boundedAfter = 1024;

thread_local constinit ItemCount packetTally;

}  // namespace

ItemCount TakePacketTally() noexcept { return std::exchange(packetTally, ItemCount{}); }

void QueueStore::OpenReader(const std::string& name, ReaderState* reader) {
  const EvictionTracker::Refusal lastCall = EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  QueueState& queue = FindOrAdd(name);
  // From here on nothing may fail half-way: the queue keeps the reader's address.
  queue.readers.reserve(queue.readers.size() + 1);
  if (!evictions_.OpenReader(*reader, queue, lastCall)) {
    ++sendingReaders_;
    NoteUnrepeated(lastCall);
    packetTally = {};
  }
  reader->queue = &queue;
  queue.readers.push_back(reader);
}

zel::ResultCode QueueStore::Read(ReaderState& reader, zel::vector_t<std::uint8_t>* data,
                                 std::uint64_t* token) {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  if (reader.exhausted) return zel::eNotFound;
  const bool evicting = evictions_.IsEvicting(reader);
  // A failure doesn't hold up what is in the file: delivery continues while a disk is full. An evicting
  // reader needs the oldest items, and the buffered ones are the youngest.
  if (options_.shared || (!evicting && writer_.BufferedItems() != 0)) Flush();
  Refresh();
  if (!evicting && (!HoldsLease() || reader.exhausted)) return zel::eNotFound;
  try {
    if (ClaimNext(reader, data, token)) {
      if (!evicting) packetTally += {1, static_cast<std::int64_t>(data->size())};
      return zel::sOk;
    }
    if (evicting && writer_.BufferedItems() != 0) {
      Flush();
      if (ClaimNext(reader, data, token)) return zel::sOk;
    }
    if (!reader.exhausted) CorrectWaiting(*reader.queue);
    return zel::eNotFound;
  } catch (const SqliteError& error) {
    NoteFailure("can't read an item: ", error);
    return zel::eUnspecifiedError;
  }
}

// The oldest unclaimed item above `after`; null if there is none.
const ItemRow* QueueStore::NextFree(QueueState& queue, std::uint64_t after) {
  const std::size_t left = readAheadBytes - std::min(readAheadBytes, writer_.ReadAheadBytes());
  const std::size_t limitBytes = std::clamp(left / readAheadShare, minReadAhead, maxReadAhead);
  while (const ItemRow* row = writer_.NextInFile(queue.stored, after, limitBytes)) {
    if (!IsClaimed(queue, row->token)) return row;
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
    if (row->token > reader.lastToken) {
      reader.exhausted = true;
      return false;
    }
    reader.cursor = row->token;
    const auto bytes = static_cast<std::int64_t>(row->data.size());
    if (IsExpired(*row)) {
      const ItemCount item{1, bytes};
      writer_.AddDelete(queue.stored, reader.cursor, item, &QueueLedger::expired);
      NoteLoss(queue, LossReason::expired, item, "they were older than the maximum age");
      continue;
    }
    if (!reader.begun && options_.pacer && !evictions_.IsEvicting(reader)) {
      if (!BeginDelivery(reader)) return false;
      if (reader.allowance.only) continue;
    }
    if (std::ranges::binary_search(reader.allowance.skipped, row->token)) continue;
    if (!MayHandOut(reader, *row)) return false;
    data->assign(row->data.data(), row->data.size());
    if (reader.claims.Empty()) {
      reader.packetFirst = row->token;
      reader.packetItems = 0;
    }
    reader.claims.Add(row->token, bytes);
    ++reader.packetItems;
    if (reader.allowance.only) reader.exhausted = reader.cutShort = true;
    *token = row->token;
    if (++reader.handedOut == boundedAfter && options_.boundedVisits && !evictions_.IsEvicting(reader)) {
      reader.lastToken = queue.stored.LastToken();
    }
    return true;
  }
  if (reader.allowance.only) EndDelivery(reader);
  return false;
}

// Asks the pacer. If false, the reader is exhausted.
bool QueueStore::BeginDelivery(ReaderState& reader) {
  const auto& all = reader.queue->readers;
  const auto earlier = std::ranges::find_if(all, [&](const ReaderState* each) {
    return each != &reader && !each->claims.Empty() && !evictions_.IsEvicting(*each);
  });
  std::optional<Allowance> allowance;
  if (earlier != all.end()) {
    (*earlier)->awaited = true;
  } else {
    allowance = options_.pacer->MayDeliver(reader.queue->stored.Name());
  }
  reader.exhausted = !allowance;
  if (!allowance) return false;
  reader.allowance = *std::move(allowance);
  reader.begun = true;
  if (reader.allowance.only) reader.cursor = *reader.allowance.only - 1;
  return true;
}

bool QueueStore::MayHandOut(ReaderState& reader, const ItemRow& row) {
  if (!reader.begun) return true;
  const Allowance& allowed = reader.allowance;
  if (!reader.claims.Empty()) {
    const std::uint64_t bytes = static_cast<std::uint64_t>(reader.claims.Bytes()) + row.data.size();
    reader.cutShort = (allowed.limitBytes != 0 && bytes > allowed.limitBytes) ||
                      (allowed.limitItems != 0 && reader.packetItems >= allowed.limitItems);
    reader.exhausted = reader.cutShort;
  } else if (allowed.only && row.token != *allowed.only) {
    EndDelivery(reader);
  }
  return !reader.exhausted;
}

void QueueStore::NoteEndOfClaim(ReaderState& reader, bool delivered) {
  if (!reader.begun || !reader.claims.Empty()) return;
  const bool moreWaits = reader.awaited || (reader.cutShort && delivered);
  reader.awaited = reader.cutShort = false;
  const bool limited = reader.allowance.limitItems != 0 || reader.allowance.only;
  if (delivered && !moreWaits && !limited) return;
  options_.pacer->OnPacketEnd(reader.queue->stored.Name(),
                              {reader.packetFirst, reader.packetItems, delivered, moreWaits});
}

// The only item that the reader was to hand out doesn't exist any more.
void QueueStore::EndDelivery(ReaderState& reader) {
  reader.exhausted = true;
  options_.pacer->OnPacketEnd(reader.queue->stored.Name(), {.first = *reader.allowance.only});
}

// A figure is a few bytes in a file without checksums. If it counted items that don't exist, the queue would
// look full for ever. The structure of the file was checked, so the figure is wrong and nothing is booked as
// lost. In a shared store another process may be faster than this check.
void QueueStore::CorrectWaiting(QueueState& queue) {
  const QueueLedger& ledger = queue.stored.Ledger();
  const auto nothingIsThere = [&] {
    return ledger.waiting != ItemCount{} &&
           std::ranges::all_of(queue.readers, [](const ReaderState* each) { return each->claims.Empty(); }) &&
           !NextFree(queue, 0);
  };
  if (options_.shared || options_.inspectOnly || !nothingIsThere() || !Flush() || !nothingIsThere()) return;
  const ItemCount untrue = ledger.waiting;
  ItemCount accepted = ledger.delivered;
  for (const ItemCount& part : {ledger.evicted, ledger.rejected, ledger.removed}) accepted += part;
  accepted += -ledger.accepted;
  writer_.Book(queue.stored, {.accepted = accepted, .waiting = -untrue});
  CommitIfDue();
  Trace(failureLevel, "the ledger of queue " + queue.stored.Name() + " counted " +
                          std::to_string(untrue.items) + " items (" + std::to_string(untrue.bytes) +
                          " bytes) that don't exist; the file was damaged, and the ledger is corrected");
}

bool QueueStore::IsExpired(const ItemRow& row) const {
  return options_.maxAge.count() > 0 && time_.NowMs() - row.enqueuedMs > options_.maxAge.count();
}

// Only one process at a time sends what is waiting, as long as it has readers.
bool QueueStore::HoldsLease() {
  if (!options_.shared) return true;
  CheckLease();
  const bool had = lease_.IsHeld();
  try {
    if (lease_.Take() && !had) wake_.notify_one();  // for the beats
  } catch (const StoreError& error) {
    Trace(failureLevel, error.what());
  }
  return lease_.IsHeld();
}

// A process that was stopped for long may have lost its lease. What its readers hold may be with others by
// now, so it is neither acknowledged nor given back.
void QueueStore::CheckLease() {
  if (!lease_.IsHeld()) return;
  lease_.CheckIfDue();
  if (lease_.IsHeld()) return;
  for (auto& [name, queue] : queues_) {
    for (ReaderState* reader : queue.readers) {
      if (evictions_.IsEvicting(*reader)) continue;
      reader->claims.Clear();
      reader->exhausted = true;
    }
  }
  Trace(failureLevel,
        "this process didn't run for long, and another one sends now; what was on its way may be "
        "sent twice");
}

zel::ResultCode QueueStore::Ack(ReaderState& reader, std::uint64_t token) {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  CheckLease();
  const std::optional<std::int64_t> bytes = reader.claims.Take(token);
  if (!bytes) return zel::eNotFound;
  const ItemCount item{1, *bytes};
  const auto kind = evictions_.EvictsInThisCall(reader) ? &QueueLedger::evicted : &QueueLedger::delivered;
  writer_.AddDelete(reader.queue->stored, token, item, kind);
  if (kind == &QueueLedger::evicted) {
    NoteLoss(*reader.queue, LossReason::evicted, item,
             "the queue was full, and newer items took their place");
  }
  CommitIfDue();
  NoteEndOfClaim(reader, true);
  return zel::sOk;
}

zel::ResultCode QueueStore::ReturnItem(ReaderState& reader, std::uint64_t token) {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  CheckLease();
  const std::optional<std::int64_t> bytes = reader.claims.Take(token);
  if (!bytes) return zel::eNotFound;
  const ItemCount item{1, *bytes};
  // On its own the figure isn't worth a transaction each time a server fails.
  writer_.BookLater(reader.queue->stored, {.returned = item});
  reader.exhausted = options_.pacer && !evictions_.IsEvicting(reader);
  NoteEndOfClaim(reader, false);
  return zel::sOk;
}

void QueueStore::CloseReader(ReaderState& reader) {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  QueueState& queue = *reader.queue;
  std::erase(queue.readers, &reader);
  const bool evicting = evictions_.IsEvicting(reader);
  if (const auto lost = evictions_.CloseReader(reader)) {
    NoteLoss(queue, LossReason::rejected, *lost, "the queue was full of items that are on their way");
  }
  if (!evicting) --sendingReaders_;
  if (evicting && !options_.shared) return;
  writer_.EndReading(queue.stored);
  // What is deleted may wait for something to be written with it, unless the lease goes with it.
  if (options_.shared || writer_.BufferedItems() != 0) Flush();
}

}  // namespace veld_report::host
