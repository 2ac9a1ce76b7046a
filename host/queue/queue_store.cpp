#include "host/queue/queue_store.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "host/base/service_thread.h"
#include "host/base/trace_line.h"

namespace veld_report::host {
namespace {

// How long the committer waits before it tries a failed write again.
constexpr std::chrono::milliseconds retryDelay{100};
// Below SQLite's own limit of 10^9 bytes a row. A larger item would stay in the buffer for ever.
constexpr std::size_t largestItem = 999'000'000;

std::uint64_t NextNumber() {
  static constinit std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

// A number of the calling thread that no other thread ever has, unlike std::thread::id.
std::uint64_t ThreadNumber() {
  thread_local const std::uint64_t number = NextNumber();
  return number;
}

// The last call of this thread to a store, if it was a Push that answered out of space.
struct Refusal {
  std::uint64_t store = 0;
  const QueueState* queue = nullptr;
  ItemCount item;
};
thread_local constinit Refusal lastRefusal;

// Every operation calls it first, so that only the very next call sees a refusal.
Refusal TakeRefusal() { return std::exchange(lastRefusal, Refusal{}); }

}  // namespace

QueueStore::QueueStore(const QueueServiceOptions& options, const std::filesystem::path& file,
                       std::shared_ptr<FileLock> folderLock)
    : options_(options),
      path_(file),
      folderLock_(std::move(folderLock)),
      id_(NextNumber()),
      file_((PreparePrivateFile(file), file), options.syncEveryCommit, options.vfs),
      writer_(file_) {
  for (QueueRow& row : file_.LoadQueues()) {
    QueueState& queue = FindOrAdd(row.name);
    queue.id = row.id;
    queue.present = row.present;
    queue.ledger = row.ledger;
  }
  committer_ = StartServiceThread("veld-store", [this] { RunCommitter(); });
}

QueueStore::~QueueStore() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  committer_.join();
  if (!Flush()) Trace(failureLevel, std::to_string(writer_.BufferedItems()) + " items are lost at the end");
}

QueueState& QueueStore::OpenQueue(const std::string& name) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  QueueState& queue = FindOrAdd(name);
  if (!queue.present) {
    writer_.Touch(queue);
    queue.present = true;
    CommitIfDue();
  }
  return queue;
}

zel::ResultCode QueueStore::Push(QueueState& queue, std::span<const std::uint8_t> data,
                                 std::uint32_t sizeLimitBytes) {
  TakeRefusal();
  const ItemCount item{1, static_cast<std::int64_t>(data.size())};
  const std::lock_guard lock(mutex_);
  TakeBackRejection(queue);
  if (data.size() > largestItem) {
    Reject(queue, item);
    return zel::eInvalidArgument;
  }
  if (queue.ledger.waiting.bytes + item.bytes > std::int64_t{sizeLimitBytes}) {
    Reject(queue, item);
    const std::uint64_t thread = ThreadNumber();
    const auto own = std::ranges::find(queue.evictions, thread, &QueueState::Eviction::thread);
    if (own != queue.evictions.end()) {
      own->refused = item;
    } else {
      lastRefusal = {id_, &queue, item};
    }
    return zel::eOutOfSpace;
  }
  if (IsRefusingWrites()) {
    Reject(queue, item);
    return zel::eNotReady;
  }
  return StoreItem(queue, data, item);
}

zel::ResultCode QueueStore::StoreItem(QueueState& queue, std::span<const std::uint8_t> data, ItemCount item) {
  writer_.AddItem(queue, NowMs(), data);
  const bool wasPresent = std::exchange(queue.present, true);
  queue.ledger.accepted += item;
  queue.ledger.waiting += item;
  const bool due = options_.commitEveryPush || writer_.Operations() >= options_.commitOperations;
  if (!due) {
    CommitIfDue();
    return zel::sOk;
  }
  if (Flush()) return zel::sOk;
  // The others of the group have been answered 0 and stay in the buffer until they can be written.
  writer_.DropLastItem();
  queue.present = wasPresent;
  queue.ledger.accepted += -item;
  queue.ledger.waiting += -item;
  Reject(queue, item);
  return zel::eNotReady;
}

// While writes fail, items aren't taken in: each one would only make the loss at the end of the process
// larger. So a Push tries to write first, but not more often than a group would be due.
bool QueueStore::IsRefusingWrites() {
  if (!writer_.Error()) return false;
  if (QueueWriter::Clock::now() - writer_.LastFailure() < options_.commitDelay) return true;
  return !Flush();
}

void QueueStore::Reject(QueueState& queue, ItemCount item) {
  writer_.Touch(queue);
  for (QueueLedger* ledger : {&queue.ledger, &queue.unwritten}) {
    ledger->accepted += item;
    ledger->rejected += item;
  }
  CommitIfDue();
}

void QueueStore::TakeBackRejection(QueueState& queue) {
  if (queue.evictions.empty()) return;
  const auto own = std::ranges::find(queue.evictions, ThreadNumber(), &QueueState::Eviction::thread);
  if (own == queue.evictions.end() || !own->refused) return;
  const ItemCount item = *std::exchange(own->refused, std::nullopt);
  Reject(queue, -item);
}

void QueueStore::OpenReader(const std::string& name, ReaderState* reader) {
  const Refusal refusal = TakeRefusal();
  const std::lock_guard lock(mutex_);
  QueueState& queue = FindOrAdd(name);
  reader->queue = &queue;
  reader->generation = queue.generation;
  reader->thread = ThreadNumber();
  reader->evicting = refusal.store == id_ && refusal.queue == &queue;
  if (reader->evicting) queue.evictions.push_back({reader, reader->thread, refusal.item});
}

zel::ResultCode QueueStore::Read(ReaderState& reader, zel::vector_t<std::uint8_t>* data,
                                 std::uint64_t* token) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  // A failure is no reason to hold back what the file has: delivering goes on while a disk is full.
  Flush();
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
  while (const auto row = file_.NextItem(queue.id, reader.cursor)) {
    struct Finish {
      StoreFile& file;
      ~Finish() { file.Finish(); }
    } const finish{file_};
    reader.cursor = row->token;
    if (queue.claimed.contains(row->token) || writer_.IsDeleted(row->token)) continue;
    data->assign(row->data.data(), row->data.size());
    reader.claims.emplace(row->token, static_cast<std::int64_t>(row->data.size()));
    queue.claimed.insert(row->token);
    *token = row->token;
    return true;
  }
  return false;
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
  queue.ledger.*kind += item;
  queue.ledger.waiting += -item;
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
  std::erase_if(queue.evictions, [&](const auto& eviction) { return eviction.reader == &reader; });
  Flush();
}

zel::ResultCode QueueStore::RemoveQueue(const std::string& name) {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  const auto found = queues_.find(name);
  if (found == queues_.end() || !found->second.present) return zel::eNotFound;
  QueueState& queue = found->second;
  const ItemCount waiting = queue.ledger.waiting;
  writer_.AddRemoval(queue, waiting);
  queue.ledger.removed += waiting;
  queue.ledger.waiting = {};
  queue.present = false;
  queue.claimed.clear();
  ++queue.generation;
  // Buffered if it fails: nobody reads what is gone, and the file follows when it can be written.
  Flush();
  return zel::sOk;
}

std::vector<std::string> QueueStore::QueueNames() {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [name, queue] : queues_) {
    if (queue.present) names.push_back(name);
  }
  return names;
}

bool QueueStore::Commit() {
  TakeRefusal();
  const std::lock_guard lock(mutex_);
  return Flush();
}

QueueState& QueueStore::FindOrAdd(const std::string& name) {
  QueueState& queue = queues_[name];
  if (queue.name.empty()) queue.name = name;
  return queue;
}

bool QueueStore::Flush() {
  const bool written = writer_.Flush();
  if (!written && !failing_) {
    Trace(failureLevel, std::string("the store can't be written, pushes are refused until it can: ") +
                            writer_.Error()->what());
  }
  if (written && failing_) Trace(failureLevel, "the store can be written again");
  failing_ = !written;
  return written;
}

// Called after each change: writes a full group, and wakes the committer for the first change of a new one.
void QueueStore::CommitIfDue() {
  if (!failing_ && writer_.Operations() >= options_.commitOperations) Flush();
  if (committerIdle_ && writer_.IsDirty()) {
    committerIdle_ = false;
    wake_.notify_one();
  }
}

// Writes a group that doesn't fill up in time. While operations come in fast it isn't woken for each group:
// it looks again when the group that it has seen would be due.
void QueueStore::RunCommitter() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (!writer_.IsDirty()) {
      committerIdle_ = true;
      wake_.wait(lock);
      continue;
    }
    committerIdle_ = false;
    const auto due =
        failing_ ? writer_.LastFailure() + retryDelay : writer_.DirtySince() + options_.commitDelay;
    if (QueueWriter::Clock::now() < due) {
      wake_.wait_until(lock, due);
    } else {
      Flush();
    }
  }
}

std::int64_t QueueStore::NowMs() const {
  if (options_.nowMs) return options_.nowMs();
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

void QueueStore::Trace(std::uint32_t level, const std::string& line) const {
  TraceLine(options_.tracer.Get(), level, "store\t" + path_.string() + ": " + line);
}

}  // namespace veld_report::host
