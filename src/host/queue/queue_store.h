// QueueStore: the queues of one domain. It implements the operations of the queue service under one lock.
//
// The interfaces of the contract are thin shells around it (queue_service.h). Changes are collected in a
// QueueWriter and written to the file in groups. Claims are kept here, in memory, so they end with the
// process. The EvictionTracker decides whether an acknowledged item was delivered or evicted.
//
// Several processes: the file and its write lock put their changes in order, and each process looks for the
// others' changes before it decides anything (Refresh). Processes don't know each other's claims, so readers
// that send need the lease (sending_lease.h), which a process holds while it has such readers.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "host/queue/buffered_queue.h"
#include "host/queue/claim_list.h"
#include "host/queue/clean_marker.h"
#include "host/queue/eviction_tracker.h"
#include "host/queue/queue_service_options.h"
#include "host/queue/queue_writer.h"
#include "host/queue/sending_lease.h"
#include "host/queue/store_file.h"
#include "host/queue/store_folder.h"
#include "host/queue/store_time.h"
#include "types/result_code.h"
#include "types/vector.h"

namespace veld_report::host {

struct QueueInfo {
  std::string name;
  std::int64_t items = 0;
  std::int64_t bytes = 0;
  std::optional<std::int64_t> oldestAgeMs;  // none for an empty queue
};

struct PeekedItem {
  std::uint64_t token = 0;
  std::int64_t ageMs = 0;
  std::string bytes;
};

// The store's state of one reader. It is on one queue, and is only used under the store's lock.
struct ReaderState {
  QueueState* queue = nullptr;
  std::uint64_t cursor = 0;  // token of the last item that it visited
  ClaimList claims;
  // For the pacer (delivery_pacer.h).
  bool begun = false;  // it was asked
  Allowance allowance{};
  std::uint64_t packetFirst = 0;  // token of the first item handed out since there were no claims
  std::size_t packetItems = 0;
  bool cutShort = false;  // stopped at its limit
  bool awaited = false;   // a later reader found its claims
  bool exhausted = false;
  std::size_t handedOut = 0;
  std::uint64_t lastToken = UINT64_MAX;  // nothing after it is handed out
};

// One queue. Created for each name in use, and kept while the store is open.
struct QueueState {
  explicit QueueState(const std::string& name) : stored(name) {}

  BufferedQueue stored;  // owned by the writer
  std::vector<ReaderState*> readers;
};

// Threads: any, except that a ReaderState is read on one thread at a time. Operations that return a
// ResultCode throw nothing but std::bad_alloc; the others throw SqliteError.
class QueueStore {
 public:
  // Opens the file, or creates it. `folderLock` is held while the store exists. Throws StoreError and
  // SqliteError.
  QueueStore(const QueueServiceOptions& options, const std::filesystem::path& file,
             std::shared_ptr<FileLock> folderLock);
  // Writes the buffer, and traces what even then can't be written. Removes the copy of an earlier layout.
  ~QueueStore();
  QueueStore(const QueueStore&) = delete;
  QueueStore& operator=(const QueueStore&) = delete;

  // Creates the queue if there is none. The result is valid as long as the store.
  QueueState& OpenQueue(const std::string& name);
  // 0x80000062 if and only if the item would fit once others are gone; 0x80000046 if it is larger than a
  // limit or than any file can hold; 0x80000063 if the file can't be written now.
  zel::ResultCode Push(QueueState& queue, std::span<const std::uint8_t> data, std::uint32_t sizeLimitBytes);

  void OpenReader(const std::string& name, ReaderState* reader);
  // 0x8000004c if there are no more items.
  zel::ResultCode Read(ReaderState& reader, zel::vector_t<std::uint8_t>* data, std::uint64_t* token);
  // 0x8000004c for a token that the reader has no claim to.
  zel::ResultCode Ack(ReaderState& reader, std::uint64_t token);
  zel::ResultCode ReturnItem(ReaderState& reader, std::uint64_t token);
  // Gives up all claims of the reader.
  void CloseReader(ReaderState& reader);

  // 0x8000004c if there is no such queue.
  zel::ResultCode RemoveQueue(const std::string& name);
  std::vector<std::string> QueueNames();
  // Writes the buffer. Returns true if all of it is in the file, and the file is still where it was.
  bool Commit();
  // As in queue_service.h. The first doesn't wait while the file is being written.
  std::string WhyPushWaits();
  void StopWaiting();
  bool EndPushes();
  // Writes the buffer and empties the log; with `rebuild` also drops the file's free space. Returns false if
  // the buffer couldn't be written. Throws SqliteError.
  bool Compact(bool rebuild);

  // For inspection; none of these claims an item.
  std::vector<QueueInfo> ListQueues();
  std::vector<PeekedItem> Peek(const std::string& name, std::size_t count);
  std::map<std::string, std::uint64_t> LastTokens();
  // For every queue name ever used, including removed queues. These two don't wait while the file is being
  // written. If processes share the store, what the others have written may then be missing.
  std::map<std::string, QueueLedger> Ledgers();
  ItemCount TotalWaiting();

 private:
  QueueState& FindOrAdd(const std::string& name);
  void AdoptRows();
  void BeginTime();
  void Refresh();
  void RefreshUnlessBusy();
  bool Flush();
  bool FlushFigures();
  void CommitIfDue();
  QueueWriter::Clock::time_point GroupIsDue() const;
  bool HasRoomInside() const;
  bool IsRefusingWrites();
  bool WaitUntilWritable(std::unique_lock<std::mutex>& lock);
  bool HasFile();
  bool MakeRoomInStore(std::int64_t bytes);
  bool EvictOldest(QueueState& queue);
  bool IsExpired(const ItemRow& row) const;
  bool HoldsLease();
  void CheckLease();
  bool BeginDelivery(ReaderState& reader);
  bool MayHandOut(ReaderState& reader, const ItemRow& row);
  void NoteEndOfClaim(ReaderState& reader, bool delivered);
  void EndDelivery(ReaderState& reader);
  zel::ResultCode RefuseUnwritable(QueueState& queue, ItemCount item);
  bool StoreItem(QueueState& queue, std::span<const std::uint8_t> data);
  void Reject(QueueState& queue, ItemCount item);
  void NoteLoss(const QueueState& queue, LossReason reason, ItemCount lost, const std::string& why) const;
  void NoteDamage(const BufferedQueue& queue, ItemCount lost) const;
  void NoteUnrepeated(const EvictionTracker::Refusal& lastCall) const;
  static bool IsClaimed(const QueueState& queue, std::uint64_t token);
  const ItemRow* NextFree(QueueState& queue, std::uint64_t after);
  void CorrectWaiting(QueueState& queue);
  bool ClaimNext(ReaderState& reader, zel::vector_t<std::uint8_t>* data, std::uint64_t* token);
  void RunCommitter();
  void GiveBackRoom();
  void NoteFailure(const std::string& what, const SqliteError& error);
  void Trace(std::uint32_t level, const std::string& line) const;

  const QueueServiceOptions options_;
  const std::filesystem::path path_;
  const std::shared_ptr<FileLock> folderLock_;

  // Guards the members below. Held across the file's operations.
  std::mutex mutex_;
  // Taken inside `mutex_`, for moments. The set of queues_ and their ledgers change with both held, so either
  // is enough to read them.
  std::mutex figuresMutex_;
  DiskReserve reserve_;
  CleanMarker mark_;
  std::unique_ptr<StoreFile> file_;  // only null at the very end
  StoreTime time_;
  QueueWriter writer_;
  EvictionTracker evictions_;
  std::int64_t dataVersion_ = 0;
  std::size_t sendingReaders_ = 0;
  SendingLease lease_;
  std::int64_t deletedBytes_ = 0;  // by the writer, when room was last given back
  std::map<std::string, QueueState> queues_;
  const FileIdentity identity_;
  bool isGone_ = false;   // the file was deleted, and that was traced
  bool failing_ = false;  // the last Flush failed, and that was traced
  bool stopping_ = false;
  // Of the pushes.
  enum class Pushes { refused, waiting, ended };
  Pushes whenUnwritable_;
  std::string whyPushWaits_;  // guarded by figuresMutex_ too
  std::condition_variable pushMayGoOn_;
  // Until when the committer sleeps; it begins by looking.
  QueueWriter::Clock::time_point committerWakes_ = QueueWriter::Clock::time_point::min();
  std::condition_variable wake_;
  std::thread committer_;
};

}  // namespace veld_report::host
