// The changes of a store that aren't in its file yet, and their way into it in one transaction.
//
// A plain write-through would lose or repeat what SQLite rolls back when a disk is full: here a change leaves
// the buffer only when the transaction that holds it has been committed, so a failed one is tried again as it
// stands. Figures of the ledger travel in the same transaction as what they count.
// One thread at a time; queue_store.h locks.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

#include "host/queue/buffered_queue.h"
#include "host/queue/disk_reserve.h"
#include "host/queue/store_file.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

class QueueWriter {
 public:
  using Clock = std::chrono::steady_clock;

  QueueWriter(StoreFile& file, DiskReserve& reserve) : file_(file), reserve_(reserve) {}

  // Takes over what the file says of the queue. Read ahead is nothing of it then.
  void Adopt(BufferedQueue& queue, const QueueRow& row);
  void SetPresence(BufferedQueue& queue, bool present);
  // Adds `change` to the queue's figures.
  void Book(BufferedQueue& queue, const QueueLedger& change);
  void AddItem(BufferedQueue& queue, std::int64_t enqueuedMs, std::span<const std::uint8_t> data);
  // Takes the youngest item back, as if it had never been offered.
  void DropLastItem();
  // `kind`: the figure that the item goes to when it leaves.
  void AddDelete(BufferedQueue& queue, std::uint64_t token, ItemCount item, ItemCount QueueLedger::*kind);
  // The queue goes, with its items in the buffer and in the file.
  void AddRemoval(BufferedQueue& queue);

  // The oldest item in the file with a token above `after` that no change in the buffer deletes; null if
  // there is none. Reads ahead, at most `limitBytes` of items. Throws SqliteError. The result is valid until
  // the next call.
  const ItemRow* NextInFile(BufferedQueue& queue, std::uint64_t after, std::size_t limitBytes);
  // Gives back the memory of what was read ahead of the queue.
  void EndReading(BufferedQueue& queue) { queue.ahead_.Shrink(); }

  // Writes everything that is buffered. Returns false if that failed: then the buffer is as before, except
  // that deletions may have gone through alone, and Error() tells why. On a full disk the log is put to use
  // again and, for deletions, the reserve given up.
  bool Flush();

  bool IsDirty() const { return !dirty_.empty(); }
  // The time of the oldest change in the buffer; only while it is dirty.
  Clock::time_point DirtySince() const { return dirtySince_; }
  // Whether so many changes stand in the buffer, or so many bytes of items that it is time to write them all
  // the same. What was evicted belongs to the push that it made room for.
  bool HoldsOperations(std::size_t count) const {
    return items_.size() + deletes_.size() - evictions_ >= count || evictions_ >= mostEvictions ||
           bytes_.size() >= mostBytes;
  }
  std::size_t BufferedItems() const { return items_.size(); }
  bool IsDeleted(std::uint64_t token) const { return !deletes_.empty() && deletedTokens_.contains(token); }
  // Set while the last attempt to write has failed.
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

  static constexpr std::size_t mostEvictions = 1024;
  static constexpr std::size_t mostBytes = std::size_t{256} * 1024;

  void Touch(BufferedQueue& queue);
  bool Try(bool withItems);
  void TryDeletionsAlone();
  void Undo() noexcept;
  void Write(bool withItems);
  bool DeleteRuns();
  void DeleteSingly();
  void WriteRemovals();
  void WriteItems();
  void Settle(bool withItems);

  StoreFile& file_;
  DiskReserve& reserve_;
  std::vector<std::uint8_t> bytes_;
  std::vector<Item> items_;
  std::vector<Delete> deletes_;
  std::size_t evictions_ = 0;  // of deletes_
  std::pmr::unsynchronized_pool_resource tokenMemory_;
  std::pmr::unordered_set<std::uint64_t> deletedTokens_{&tokenMemory_};
  std::vector<Removal> removals_;
  std::vector<BufferedQueue*> dirty_;
  std::vector<NewItem> newItems_;      // of the transaction in progress
  std::vector<BufferedQueue*> added_;  // got their row in the transaction in progress
  Clock::time_point dirtySince_{};
  std::optional<SqliteError> error_;
  Clock::time_point lastFailure_{};
};

}  // namespace veld_report::host
