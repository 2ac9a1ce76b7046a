// QueueWriter: the changes of a store that aren't in its file yet, and the one transaction that writes them.
//
// A plain write-through would lose or repeat what SQLite rolls back when a disk is full. Here a change only
// leaves the buffer once its transaction is committed, so a failed one is retried unchanged. The ledger's
// figures are written in the same transaction as what they count. One thread at a time; queue_store.h locks.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
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
  enum class Access { alone, shared, inspectOnly };
  using OnDamage = std::function<void(const BufferedQueue& queue, ItemCount lost)>;

  // `figuresMutex` is held whenever a ledger changes, and never across an operation of the file. So who holds
  // it may read the ledgers while the file is being written. `onDamage` is called for damaged items that were
  // found and booked.
  QueueWriter(StoreFile& file, Access access, DiskReserve& reserve, std::mutex& figuresMutex,
              OnDamage onDamage)
      : file_(file),
        access_(access),
        reserve_(reserve),
        figuresMutex_(figuresMutex),
        onDamage_(std::move(onDamage)) {}

  // Takes over the queue's row in the file.
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
  // The same for all of them.
  void TakeBackItems() {
    while (!items_.empty()) DropLastItem();
  }
  // For the end of the process, after a Flush that failed: books the added items as rejected, and writes
  // everything else as far as that is possible. Returns what each queue has lost.
  std::vector<std::pair<const BufferedQueue*, ItemCount>> RejectItems();
  // `kind`: the figure that counts the item once it is gone.
  void AddDelete(BufferedQueue& queue, std::uint64_t token, ItemCount item, ItemCount QueueLedger::*kind);
  // Removes the queue with its items, in the buffer and in the file.
  void AddRemoval(BufferedQueue& queue);

  // The oldest item in the file with a token above `after` that no buffered change deletes; null if there is
  // none. Reads ahead, up to `limitBytes` of memory. Damaged items are booked and skipped. Throws
  // SqliteError. The result is valid until the next call.
  const ItemRow* NextInFile(BufferedQueue& queue, std::uint64_t after, std::size_t limitBytes);
  // Frees the memory of what was read ahead.
  void EndReading(BufferedQueue& queue) {
    readAheadBytes_ -= queue.ahead_.Memory();
    queue.ahead_.Shrink();
  }
  // The memory of what was read ahead of all queues.
  std::size_t ReadAheadBytes() const { return readAheadBytes_; }

  // Writes everything in the buffer. Returns false on failure: the buffer is then unchanged, except that
  // deletions may have been written, and Error() says why. On a full disk the log's own room is reused and,
  // for deletions, the reserve is given up; blocks are then deleted in parts that fit into it.
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
  // The error of the last attempt to write, if it failed.
  const std::optional<SqliteError>& Error() const { return error_; }
  Clock::time_point LastFailure() const { return lastFailure_; }

 private:
  struct Item {
    BufferedQueue* queue;
    std::int64_t enqueuedMs;
    std::size_t offset;  // into bytes_
    std::size_t size;
    std::size_t previous;  // item of the same queue, or none
  };
  struct Delete {
    BufferedQueue* queue;
    std::uint64_t position;
    ItemCount item;
    ItemCount QueueLedger::*kind;
  };
  struct Removal {
    BufferedQueue* queue;
    ItemCount expected;
  };
  // Positions whose blocks are still to be deleted.
  struct DeadRange {
    std::int64_t queueId;
    RangeSet::Range range;
    std::uint64_t last;
    bool overwrite;
  };

  static constexpr std::size_t maxEvictions = 1024;
  static constexpr std::size_t maxBytes = std::size_t{256} * 1024;

  void Touch(BufferedQueue& queue, bool urgent = true);
  bool Try(bool withItems);
  void TryDeletionsAlone();
  void Sweep();
  void Undo() noexcept;
  void Write(bool withItems);
  void LoadPositions(BufferedQueue& queue);
  void CorrectDeletions();
  void WriteRemovals();
  void WriteItems(BufferedQueue& queue);
  bool ExtendYoungest(const BufferedQueue& queue, std::size_t bytes);
  void MergeSmall(BufferedQueue& queue);
  std::size_t AddBlocks(const BufferedQueue& queue);
  void WritePositions(BufferedQueue& queue, bool withSweep);
  void Settle(bool withItems);
  void RelinkItems();
  bool ReadFrom(BufferedQueue& queue, std::uint64_t key, std::size_t limitBytes);
  void Bury(BufferedQueue& queue, std::uint64_t position);
  ItemCount WriteBurial(BufferedQueue& queue);

  StoreFile& file_;
  const Access access_;
  DiskReserve& reserve_;
  std::mutex& figuresMutex_;
  const OnDamage onDamage_;
  std::vector<std::uint8_t> bytes_;
  std::vector<Item> items_;
  std::vector<Delete> deletes_;
  std::size_t evictions_ = 0;  // among deletes_
  std::int64_t deletedBytes_ = 0;
  std::vector<Removal> removals_;
  std::vector<DeadRange> dead_;
  std::size_t readAheadBytes_ = 0;
  std::vector<BufferedQueue*> dirty_;
  std::vector<NewItem> newItems_;      // of a queue, in the transaction in progress
  std::vector<BufferedQueue*> added_;  // got their row in the transaction in progress
  Clock::time_point dirtySince_{};
  std::optional<Clock::time_point> urgentSince_;  // of the oldest change but a deletion
  std::optional<SqliteError> error_;
  Clock::time_point lastFailure_{};
};

}  // namespace veld_report::host
