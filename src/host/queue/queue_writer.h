// QueueWriter: the changes of a store that aren't in its file yet, and the one transaction that writes them.
//
// A plain write-through would lose or repeat what SQLite rolls back when a disk is full. Here a change only
// leaves the buffer once its transaction is committed, so a failed one is retried unchanged. The ledger's
// figures are written in the same transaction as what they count. One thread at a time; queue_store.h locks.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory_resource>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/queue/buffered_queue.h"
#include "host/queue/disk_reserve.h"
#include "host/queue/store_file.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

class QueueWriter {
 public:
  using Clock = std::chrono::steady_clock;

  // `figuresMutex` is held whenever a ledger changes, and never across an operation of the file. So who holds
  // it may read the ledgers while the file is being written.
  QueueWriter(StoreFile& file, DiskReserve& reserve, std::mutex& figuresMutex)
      : file_(file), reserve_(reserve), figuresMutex_(figuresMutex) {}

  // Takes over the queue's row in the file. Forgets what was read ahead.
  void Adopt(BufferedQueue& queue, const QueueRow& row);
  void SetPresence(BufferedQueue& queue, bool present);
  // Adds `change` to the queue's figures.
  void Book(BufferedQueue& queue, const QueueLedger& change);
  // The same, but the figures are only written together with another change of the queue, or after
  // IncludeBooked.
  void BookLater(BufferedQueue& queue, const QueueLedger& change);
  void IncludeBooked(BufferedQueue& queue);
  void AddItem(BufferedQueue& queue, std::int64_t enqueuedMs, std::span<const std::uint8_t> data);
  // Removes the last added item, as if it had never been offered.
  void DropLastItem();
  // For the end of the process, after a Flush that failed: books the added items as rejected, and writes
  // everything else as far as that is possible. Returns what each queue has lost.
  std::vector<std::pair<const BufferedQueue*, ItemCount>> RejectItems();
  // `kind`: the figure that counts the item once it is gone.
  void AddDelete(BufferedQueue& queue, std::uint64_t token, ItemCount item, ItemCount QueueLedger::*kind);
  // Removes the queue with its items, in the buffer and in the file.
  void AddRemoval(BufferedQueue& queue);

  // The oldest item in the file with a token above `after` that no buffered change deletes; null if there is
  // none. Reads ahead, up to `limitBytes` of items. Throws SqliteError. The result is valid until the next
  // call.
  const ItemRow* NextInFile(BufferedQueue& queue, std::uint64_t after, std::size_t limitBytes);
  // Frees the memory of what was read ahead.
  void EndReading(BufferedQueue& queue) { queue.ahead_.Shrink(); }

  // Writes everything in the buffer. Returns false on failure: the buffer is then unchanged, except that
  // deletions may have been written, and Error() says why. On a full disk the log's own room is reused and,
  // for deletions, the reserve is given up; they are then written in parts that fit into it.
  bool Flush();

  bool IsDirty() const { return !dirty_.empty(); }
  // When the buffer is to be written: `delay` after its oldest change, or `deletionDelay` after it if there
  // are only deletions. Only valid while it is dirty.
  Clock::time_point Due(std::chrono::milliseconds delay, std::chrono::milliseconds deletionDelay) const {
    return urgentSince_ ? *urgentSince_ + delay : dirtySince_ + deletionDelay;
  }
  // True if the buffer holds that many changes, or so many bytes of items that it should be written anyway.
  // Evictions belong to the push that they make room for and don't count.
  bool HoldsOperations(std::size_t count) const {
    return items_.size() + deletes_.size() - evictions_ >= count || evictions_ >= maxEvictions ||
           bytes_.size() >= maxBytes;
  }
  std::size_t BufferedItems() const { return items_.size(); }
  // The size of all items that were ever deleted here.
  std::int64_t DeletedBytes() const { return deletedBytes_; }
  bool IsDeleted(std::uint64_t token) const { return !deletes_.empty() && deletedTokens_.contains(token); }
  // The error of the last attempt to write, if it failed.
  const std::optional<SqliteError>& Error() const { return error_; }
  Clock::time_point LastFailure() const { return lastFailure_; }

 private:
  struct Item {
    BufferedQueue* queue;
    std::int64_t enqueuedMs;
    std::size_t offset;  // into bytes_
    std::size_t size;
  };
  struct Delete {
    BufferedQueue* queue;
    std::uint64_t token;
    ItemCount item;
    ItemCount QueueLedger::*kind;
  };
  struct Removal {
    BufferedQueue* queue;
    ItemCount expected;
  };

  static constexpr std::size_t maxEvictions = 1024;
  static constexpr std::size_t maxBytes = std::size_t{256} * 1024;

  void Touch(BufferedQueue& queue, bool urgent = true);
  bool Try(bool withItems);
  void TryDeletionsAlone();
  std::size_t OldestDeletions() const;
  bool TryDeletions(std::size_t count);
  void WriteDeletions(std::span<const Delete> oldest);
  void Undo() noexcept;
  void Write(bool withItems);
  bool DeleteRuns();
  void DeleteSingly(std::span<const Delete> deletes);
  void WriteRemovals();
  void WriteItems();
  void Settle(bool withItems);

  StoreFile& file_;
  DiskReserve& reserve_;
  std::mutex& figuresMutex_;
  std::vector<std::uint8_t> bytes_;
  std::vector<Item> items_;
  std::vector<Delete> deletes_;
  std::size_t evictions_ = 0;  // among deletes_
  std::int64_t deletedBytes_ = 0;
  std::pmr::unsynchronized_pool_resource tokenMemory_;
  std::pmr::unordered_set<std::uint64_t> deletedTokens_{&tokenMemory_};
  std::vector<Removal> removals_;
  std::vector<BufferedQueue*> dirty_;
  std::vector<NewItem> newItems_;      // of the transaction in progress
  std::vector<BufferedQueue*> added_;  // got their row in the transaction in progress
  Clock::time_point dirtySince_{};
  std::optional<Clock::time_point> urgentSince_;  // of the oldest change but a deletion
  std::optional<SqliteError> error_;
  Clock::time_point lastFailure_{};
};

}  // namespace veld_report::host
