#include "host/queue/queue_store.h"

#include <algorithm>
#include <utility>

#include "host/base/write_trace.h"
#include "host/platform/file.h"
#include "host/platform/service_thread.h"
#include "host/queue/store_opening.h"
#include "host/queue/store_upgrade.h"

namespace veld_report::host {
namespace {

// How long the committer waits before it retries a failed write.
constexpr std::chrono::milliseconds retryDelay{100};
// How long a group that only deletes waits for something to be written with. With a record every second or
// two, which is delivered at once, that halves what is written.
constexpr std::chrono::milliseconds deletionDelay{3000};
// So much free room in the file does for a reserve that can't be had again.
constexpr std::int64_t plentyOfFreeBytes = 8 << 20;
constexpr std::int64_t fewFreeBytes = 1 << 20;
// The file is rewritten without its free room if that is as much, and if so little is in use.
constexpr std::int64_t manyFreeBytes = 16 << 20;
constexpr std::int64_t fewUsedBytes = 4 << 20;
// Below SQLite's own limit of 10^9 bytes per row. A larger item would stay in the buffer for ever.
constexpr std::size_t maxItemBytes = 999'000'000;

constexpr const char* unwritable = "the store can't be written; is its disk full?";

QueueWriter::Access AccessOf(const QueueServiceOptions& options) {
  if (options.inspectOnly) return QueueWriter::Access::inspectOnly;
  return options.shared ? QueueWriter::Access::shared : QueueWriter::Access::alone;
}

}  // namespace

QueueStore::QueueStore(const QueueServiceOptions& options, const std::filesystem::path& file,
                       std::shared_ptr<FileLock> folderLock)
    : options_(options),
      path_(file),
      folderLock_(std::move(folderLock)),
      reserve_(options.inspectOnly ? std::filesystem::path() : WithEnding(file, ".reserve")),
      mark_(options.inspectOnly ? std::filesystem::path() : file),
      file_(OpenStoreFile(options, file, *folderLock_, reserve_, mark_)),
      time_(
          file, options.maxAge, [this] { return file_->YoungestMs(); }, options.machine),
      writer_(*file_, AccessOf(options), reserve_, figuresMutex_,
              [this](const BufferedQueue& queue, ItemCount lost) { NoteDamage(queue, lost); }),
      lease_(WithEnding(file, ".lease"), options.machine),
      identity_(FileIdentity::Of(file)),
      whenUnwritable_(options.pushesWait ? Pushes::waiting : Pushes::refused) {
  AdoptRows();
  if (options_.inspectOnly) return;
  BeginTime();
  GiveBackRoom();
  committer_ = StartServiceThread("veld-store", [this] { RunCommitter(); });
}

QueueStore::~QueueStore() {
  if (options_.inspectOnly) return;
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  committer_.join();
  try {
    if (FlushFigures()) {
      RemoveTracesOfUpgrades(path_);
    } else {
      Trace(failureLevel,
            std::to_string(writer_.BufferedItems()) + " items couldn't be written and are lost");
      for (const auto& [queue, lost] : writer_.RejectItems()) {
        if (options_.onLoss) options_.onLoss(queue->Name(), LossReason::rejected, lost, unwritable);
      }
    }
  } catch (const std::exception&) {
    // No memory for a sentence.
  }
  GiveBackRoom();
  time_.WriteNote();
  file_.reset();
  // If processes share the file, another one may have it open.
  if (!options_.shared) mark_.NoteClosed();
}

// Without a note the times in the file may lie ahead, and such an item would never expire.
void QueueStore::BeginTime() {
  try {
    if (!time_.IsContinued()) file_->LimitTimes(time_.NowMs());
    time_.BeginNotes();
  } catch (const SqliteError&) {
    // The next start finds no note and tries again.
  }
}

void QueueStore::AdoptRows() {
  dataVersion_ = file_->DataVersion();
  for (const QueueRow& row : file_->LoadQueues()) {
    writer_.Adopt(FindOrAdd(row.name).stored, row);
  }
}

// Other processes only change the figures if the store is shared.
void QueueStore::Refresh() {
  if (!options_.shared && !options_.inspectOnly) return;
  try {
    if (file_->DataVersion() == dataVersion_) return;
    AdoptRows();
  } catch (const SqliteError& error) {
    NoteFailure("can't look for what other processes have written: ", error);
  }
}

QueueState& QueueStore::OpenQueue(const std::string& name) {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  QueueState& queue = FindOrAdd(name);
  Refresh();
  if (!queue.stored.IsPresent()) {
    writer_.SetPresence(queue.stored, true);
    CommitIfDue();
  }
  return queue;
}

zel::ResultCode QueueStore::Push(QueueState& queue, std::span<const std::uint8_t> data,
                                 std::uint32_t sizeLimitBytes) {
  const EvictionTracker::Refusal lastCall = EvictionTracker::BeginCall();
  const ItemCount item{1, static_cast<std::int64_t>(data.size())};
  std::unique_lock lock(mutex_);
  NoteUnrepeated(lastCall);
  if (!WaitUntilWritable(lock)) return zel::eNotReady;
  if (const auto repeated = evictions_.TakeRepeated(queue)) Reject(queue, -*repeated);
  const std::uint64_t limitBytes = std::min<std::uint64_t>(
      {maxItemBytes, sizeLimitBytes, options_.storeLimitBytes == 0 ? UINT64_MAX : options_.storeLimitBytes});
  if (data.size() > limitBytes) {
    // Not out of space: the caller would empty the queue for an item that fits nowhere.
    Reject(queue, item);
    const std::string why = "an item of " + std::to_string(data.size()) + " bytes is lost: queue " +
                            queue.stored.Name() + " can hold " + std::to_string(limitBytes);
    NoteLoss(queue, LossReason::rejected, item, why);
    Trace(failureLevel, why);
    return zel::eInvalidArgument;
  }
  Refresh();
  if (queue.stored.Ledger().waiting.bytes + item.bytes > std::int64_t{sizeLimitBytes} ||
      !MakeRoomInStore(item.bytes)) {
    Reject(queue, item);
    evictions_.NoteRefusal(queue, item);
    return zel::eOutOfSpace;
  }
  if (IsRefusingWrites()) return RefuseUnwritable(queue, item);
  while (!StoreItem(queue, data)) {
    if (whenUnwritable_ == Pushes::refused) return RefuseUnwritable(queue, item);
    if (!WaitUntilWritable(lock)) return zel::eNotReady;
  }
  return zel::sOk;
}

// Returns false if the file can't be written and the item isn't in the buffer either.
bool QueueStore::StoreItem(QueueState& queue, std::span<const std::uint8_t> data) {
  writer_.AddItem(queue.stored, time_.NowMs(), data);
  const bool due = options_.commitEveryPush || writer_.HoldsOperations(options_.commitOperations);
  if (!due) {
    CommitIfDue();
    return true;
  }
  if (Flush()) return true;
  // Push has returned 0 for the others of the group, so they stay in the buffer until they can be written.
  writer_.DropLastItem();
  return false;
}

zel::ResultCode QueueStore::RefuseUnwritable(QueueState& queue, ItemCount item) {
  Reject(queue, item);
  NoteLoss(queue, LossReason::rejected, item, unwritable);
  return zel::eNotReady;
}

// Returns false if pushes have ended. Where they don't wait at all, the caller sees whether it is refused.
bool QueueStore::WaitUntilWritable(std::unique_lock<std::mutex>& lock) {
  const auto note = [&](const std::string& why) {
    const std::lock_guard figures(figuresMutex_);
    whyPushWaits_ = why;
  };
  while (whenUnwritable_ == Pushes::waiting && IsRefusingWrites()) {
    note(writer_.Error() ? writer_.Error()->what() : "little room is left on its disk");
    // What makes room, such as another process, wakes nobody.
    pushMayGoOn_.wait_for(lock, retryDelay);
  }
  if (!whyPushWaits_.empty()) note("");
  return whenUnwritable_ != Pushes::ended;
}

std::string QueueStore::WhyPushWaits() {
  const std::lock_guard lock(figuresMutex_);
  return whyPushWaits_;
}

void QueueStore::StopWaiting() {
  const std::lock_guard lock(mutex_);
  if (whenUnwritable_ == Pushes::waiting) whenUnwritable_ = Pushes::refused;
  pushMayGoOn_.notify_all();
}

bool QueueStore::EndPushes() {
  const std::lock_guard lock(mutex_);
  whenUnwritable_ = Pushes::ended;
  pushMayGoOn_.notify_all();
  const bool written = FlushFigures();
  if (!written) writer_.TakeBackItems();
  return written;
}

// Keeps the whole store within its limit, at the cost of the largest queue.
bool QueueStore::MakeRoomInStore(std::int64_t bytes) {
  const auto limit = static_cast<std::int64_t>(std::min<std::uint64_t>(options_.storeLimitBytes, INT64_MAX));
  if (limit == 0) return true;
  while (true) {
    std::int64_t total = bytes;
    QueueState* largest = nullptr;
    for (auto& [name, queue] : queues_) {
      const std::int64_t waiting = queue.stored.Ledger().waiting.bytes;
      total += waiting;
      if (!largest || waiting > largest->stored.Ledger().waiting.bytes) largest = &queue;
    }
    if (total <= limit) return true;
    if (!largest || !EvictOldest(*largest)) return false;
  }
}

bool QueueStore::EvictOldest(QueueState& queue) {
  try {
    const ItemRow* row = NextFree(queue, 0);
    if (!row && writer_.BufferedItems() != 0) {
      Flush();
      row = NextFree(queue, 0);
    }
    if (!row) return false;
    const ItemCount item{1, static_cast<std::int64_t>(row->data.size())};
    writer_.AddDelete(queue.stored, row->token, item, &QueueLedger::evicted);
    NoteLoss(queue, LossReason::evicted, item, "the store was full, and newer items took their place");
    CommitIfDue();
    return true;
  } catch (const SqliteError& error) {
    NoteFailure("can't drop the oldest item: ", error);
  }
  return false;
}

// Whether the free room inside the file does for a reserve: it is large, or most of a small file.
bool QueueStore::HasRoomInside() const {
  const std::int64_t freeBytes = file_->FreeBytes();
  return freeBytes >= plentyOfFreeBytes || (freeBytes >= fewFreeBytes && freeBytes / 3 >= file_->UsedBytes());
}

// While writes fail, items are refused: each one would only increase the loss at the end of the process. So a
// Push first tries to write, but no more often than a group would be due.
bool QueueStore::IsRefusingWrites() {
  if (reserve_.IsGivenUp()) reserve_.Restore();
  if (reserve_.IsGivenUp() && !HasRoomInside()) return true;
  if (!writer_.Error()) return false;
  if (QueueWriter::Clock::now() - writer_.LastFailure() < options_.commitDelay) return true;
  return !Flush();
}

void QueueStore::Reject(QueueState& queue, ItemCount item) {
  writer_.Book(queue.stored, {.accepted = item, .rejected = item});
  CommitIfDue();
}

void QueueStore::NoteLoss(const QueueState& queue, LossReason reason, ItemCount lost,
                          const std::string& why) const {
  if (options_.onLoss) options_.onLoss(queue.stored.Name(), reason, lost, why);
}

void QueueStore::NoteDamage(const BufferedQueue& queue, ItemCount lost) const {
  const std::string why = std::to_string(lost.items) + " items of queue " + queue.Name() +
                          " were damaged in the file, and are lost";
  if (options_.onLoss) options_.onLoss(queue.Name(), LossReason::damaged, lost, why);
  Trace(failureLevel, why);
}

// An item that was refused as out of space is only lost if its producer doesn't go on to make room for it.
void QueueStore::NoteUnrepeated(const EvictionTracker::Refusal& lastCall) const {
  if (lastCall.queue && evictions_.IsOwn(lastCall)) {
    NoteLoss(*lastCall.queue, LossReason::rejected, lastCall.item, "the queue was full");
  }
}

zel::ResultCode QueueStore::RemoveQueue(const std::string& name) {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  if (options_.inspectOnly) return zel::eNotSupported;
  Refresh();
  const auto found = queues_.find(name);
  if (found == queues_.end() || !found->second.stored.IsPresent()) return zel::eNotFound;
  QueueState& queue = found->second;
  const ItemCount waiting = queue.stored.Ledger().waiting;
  writer_.AddRemoval(queue.stored);
  if (waiting.items != 0) {
    NoteLoss(queue, LossReason::removed, waiting, "their queue was removed, by new settings or by a command");
  }
  for (ReaderState* reader : queue.readers) reader->claims.Clear();
  // If this fails, it stays in the buffer. Nobody reads what is gone, and the file follows when it can be
  // written.
  Flush();
  return zel::sOk;
}

std::vector<std::string> QueueStore::QueueNames() {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  Refresh();
  std::vector<std::string> names;
  for (const auto& [name, queue] : queues_) {
    if (queue.stored.IsPresent()) names.push_back(name);
  }
  return names;
}

bool QueueStore::Commit() {
  EvictionTracker::BeginCall();
  const std::lock_guard lock(mutex_);
  return FlushFigures() && HasFile();
}

// Without its folder a store goes on, in a file that goes with its last descriptor.
bool QueueStore::HasFile() {
  if (identity_ == FileIdentity::Of(path_)) return true;
  if (!std::exchange(isGone_, true))
    Trace(failureLevel, "the store's file has been deleted; nothing in it is safe");
  return false;
}

// Also writes the figures that wait for a change.
bool QueueStore::FlushFigures() {
  for (auto& [name, queue] : queues_) {
    writer_.IncludeBooked(queue.stored);
  }
  return Flush();
}

QueueState& QueueStore::FindOrAdd(const std::string& name) {
  const std::lock_guard lock(figuresMutex_);
  return queues_.try_emplace(name, name).first->second;
}

bool QueueStore::Flush() {
  const bool written = writer_.Flush();
  if (written) time_.WriteNoteIfDue();
  if (!written && !failing_) {
    NoteFailure("the store can't be written, pushes are refused until it can: ", *writer_.Error());
  }
  if (written && failing_) Trace(failureLevel, "the store can be written again");
  failing_ = !written;
  // Not earlier: the next process must not find items that were delivered and whose deletion is still in the
  // buffer.
  if (written && sendingReaders_ == 0) lease_.Release();
  lease_.BeatIfDue();
  return written;
}

// Called after each change: writes a full group, and wakes the committer for a new one that is due before the
// one for which it sleeps.
void QueueStore::CommitIfDue() {
  if (!failing_ && writer_.HoldsOperations(options_.commitOperations)) Flush();
  if (!writer_.IsDirty() || GroupIsDue() >= committerWakes_) return;
  committerWakes_ = QueueWriter::Clock::time_point::min();
  wake_.notify_one();
}

QueueWriter::Clock::time_point QueueStore::GroupIsDue() const {
  if (failing_) return writer_.LastFailure() + retryDelay;
  // Another process may send what is acknowledged as soon as this one has no readers.
  return writer_.Due(options_.commitDelay,
                     options_.shared ? options_.commitDelay : std::max(options_.commitDelay, deletionDelay));
}

// Writes a group that doesn't fill up in time. While operations come in fast, it isn't woken for each group:
// it checks again when the group that it has seen would be due.
void QueueStore::RunCommitter() {
  using Clock = QueueWriter::Clock;
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    lease_.BeatIfDue();
    const bool dirty = writer_.IsDirty();
    if (!dirty && writer_.DeletedBytes() - deletedBytes_ >= manyFreeBytes) GiveBackRoom();
    committerWakes_ = dirty             ? GroupIsDue()
                      : lease_.IsHeld() ? Clock::now() + SendingLease::beatEvery
                                        : Clock::time_point::max();
    if (committerWakes_ == Clock::time_point::max()) {
      wake_.wait(lock);
    } else if (Clock::now() < committerWakes_) {
      wake_.wait_until(lock, committerWakes_);
    } else {
      Flush();
    }
  }
}

// What a long outage has left: a large file with little in it. The limits keep this short and the log small.
// Other processes could hold it up, so a shared file stays as it is.
void QueueStore::GiveBackRoom() {
  deletedBytes_ = writer_.DeletedBytes();
  if (options_.shared || file_->FreeBytes() < manyFreeBytes || file_->UsedBytes() > fewUsedBytes) return;
  try {
    file_->Compact(true);
  } catch (const SqliteError&) {
    // It works as it is; the next opening tries again.
  }
}

void QueueStore::NoteFailure(const std::string& what, const SqliteError& error) {
  if (error.IsDamage()) mark_.Withdraw();
  Trace(failureLevel, what + error.what());
}

void QueueStore::Trace(std::uint32_t level, const std::string& line) const {
  WriteTrace(options_.tracer.Get(), level, "store\t" + Utf8(path_) + ": " + line);
}

}  // namespace veld_report::host
