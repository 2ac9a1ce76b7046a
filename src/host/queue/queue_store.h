// One domain's queues: what the operations of the queue service do, behind one lock.
//
// The interfaces of the contract are thin shells around it (queue_service.h). Changes gather in a QueueWriter
// and go to the file in groups; claims live here, in memory, so they end with the process. Whether an
// acknowledged item was delivered or evicted is the EvictionTracker's question.
//
// Several processes: the file and its write lock order their changes, and each process looks for those of the
// others before it decides anything (Refresh). Claims of one process are unknown to the others, so readers
// that send need the lease, a lock that a process holds as long as it has such readers.
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
#include "host/queue/store_file.h"
#include "host/queue/store_folder.h"
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
  std::int64_t enqueuedMs = 0;  // since 1970
  std::string bytes;
};

// The side of one reader that its store keeps. Belongs to one queue; touched under the store's lock only.
struct ReaderState {
  QueueState* queue = nullptr;
  std::uint64_t cursor = 0;  // token of the last item that was looked at
  ClaimList claims;
};

// One queue. Made for each name that comes up and kept as long as the store is open.
struct QueueState {
  explicit QueueState(const std::string& name) : stored(name) {}

  BufferedQueue stored;  // the writer's
  std::vector<ReaderState*> readers;
};

// Threads: any, except that Read of one ReaderState runs on one at a time. Operations that return a
// ResultCode don't throw, except for std::bad_alloc; the others throw SqliteError.
class QueueStore {
 public:
  // Opens the file, making it if needed. `folderLock` is held as long as the store lives. Throws StoreError
  // and SqliteError.
  QueueStore(const QueueServiceOptions& options, const std::filesystem::path& file,
             std::shared_ptr<FileLock> folderLock);
  // Writes what is buffered; what can't be written even then is traced. The copy of an earlier layout goes.
  ~QueueStore();
  QueueStore(const QueueStore&) = delete;
  QueueStore& operator=(const QueueStore&) = delete;

  // The queue comes into being. The result stays valid as long as the store.
  QueueState& OpenQueue(const std::string& name);
  // 0x80000062 exactly if the item doesn't fit under the limit; 0x80000063 if the file can't be written just
  // now; 0x80000046 for an item that no file can hold.
  zel::ResultCode Push(QueueState& queue, std::span<const std::uint8_t> data, std::uint32_t sizeLimitBytes);

  void OpenReader(const std::string& name, ReaderState* reader);
  // 0x8000004c when there is no further item.
  zel::ResultCode Read(ReaderState& reader, zel::vector_t<std::uint8_t>* data, std::uint64_t* token);
  // 0x8000004c for a token that the reader has no claim on.
  zel::ResultCode Ack(ReaderState& reader, std::uint64_t token);
  zel::ResultCode ReturnItem(ReaderState& reader, std::uint64_t token);
  // Gives all its claims up.
  void CloseReader(ReaderState& reader);

  // 0x8000004c if there is no such queue.
  zel::ResultCode RemoveQueue(const std::string& name);
  std::vector<std::string> QueueNames();
  // Writes what is buffered. Returns whether all of it stands in the file.
  bool Commit();
  // Writes what is buffered and empties the log; with `rebuild` also the file's free space goes. Returns
  // false if what is buffered couldn't be written. Throws SqliteError.
  bool Compact(bool rebuild);

  // For people; none of these claims an item.
  std::vector<QueueInfo> ListQueues();
  std::vector<PeekedItem> Peek(const std::string& name, std::size_t count);
  std::uint64_t LastToken();
  ItemCount TotalWaiting();
  // Of every queue name that was ever used, removed ones included.
  std::map<std::string, QueueLedger> Ledgers();

 private:
  QueueState& FindOrAdd(const std::string& name);
  void AdoptRows();
  void Refresh();
  bool Flush();
  void CommitIfDue();
  bool IsRefusingWrites();
  bool MakeRoomInStore(std::int64_t bytes);
  bool EvictOldest(QueueState& queue);
  bool IsExpired(const ItemRow& row) const;
  bool HoldsLease();
  zel::ResultCode StoreItem(QueueState& queue, std::span<const std::uint8_t> data, ItemCount item);
  void Reject(QueueState& queue, ItemCount item);
  static bool IsClaimed(const QueueState& queue, std::uint64_t token);
  const ItemRow* NextFree(QueueState& queue, std::uint64_t after);
  void CorrectWaiting(QueueState& queue);
  bool ClaimNext(ReaderState& reader, zel::vector_t<std::uint8_t>* data, std::uint64_t* token);
  void RunCommitter();
  void NoteFailure(const std::string& what, const SqliteError& error);
  void Trace(std::uint32_t level, const std::string& line) const;

  const QueueServiceOptions options_;
  const std::filesystem::path path_;
  const std::shared_ptr<FileLock> folderLock_;

  // Guards everything below; held across the file's operations.
  std::mutex mutex_;
  DiskReserve reserve_;
  CleanMarker mark_;
  std::unique_ptr<StoreFile> file_;  // null only at the very end
  QueueWriter writer_;
  EvictionTracker evictions_;
  std::int64_t dataVersion_ = 0;
  std::size_t sendingReaders_ = 0;
  FileLock lease_;
  std::map<std::string, QueueState> queues_;
  bool failing_ = false;  // the last Flush failed, and that has been traced
  bool stopping_ = false;
  bool committerIdle_ = false;
  std::condition_variable wake_;
  std::thread committer_;
};

}  // namespace veld_report::host
