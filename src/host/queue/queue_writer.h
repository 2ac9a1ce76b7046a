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

#include "host/queue/disk_reserve.h"
#include "host/queue/read_ahead.h"
#include "host/queue/store_file.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

struct ReaderState;  // host/queue/queue_store.h

// One queue as its store sees it. Made for each name that comes up and kept as long as the store is open.
struct QueueState {
  // A reader that makes room, and the refused push for which it does; see queue_store.h.
  struct Eviction {
    const void* reader;
    std::uint64_t thread;
    std::optional<ItemCount> refused;
  };

  std::string name;
  std::int64_t id = 0;  // row in the file, 0 as long as there is none
  bool present = false;
  QueueLedger ledger;  // what holds, changes in the buffer included
  std::vector<ReaderState*> readers;
  std::vector<Eviction> evictions;
  ReadAhead ahead;

  // The writer's.
  bool dirty = false;
  std::optional<bool> presence;  // to be written
  bool removalBuffered = false;  // what the file still holds of the queue is gone
  QueueLedger unwritten;         // change of the figures that isn't in the file, buffered items left out
  QueueLedger change;            // of the transaction in progress
  QueueLedger correction;        // by which that transaction differs from what was expected
};

class QueueWriter {
 public:
  using Clock = std::chrono::steady_clock;

  QueueWriter(StoreFile& file, DiskReserve& reserve) : file_(file), reserve_(reserve) {}

  void AddItem(QueueState& queue, std::int64_t enqueuedMs, std::span<const std::uint8_t> data);
  // Takes the youngest item back.
  void DropLastItem();
  // `kind`: the figure that the item goes to when it leaves.
  void AddDelete(QueueState& queue, std::uint64_t token, ItemCount item, ItemCount QueueLedger::*kind);
  // Drops the queue's items, those of the buffer and those of the file, `waiting` all together.
  // Returns what was dropped from the buffer.
  ItemCount AddRemoval(QueueState& queue, ItemCount waiting);
  void SetPresence(QueueState& queue, bool present);
  // Tells that the queue's figures have changed.
  void Touch(QueueState& queue);
  // What the figures of the queue's row come to with what is buffered.
  QueueLedger WithBuffered(const QueueState& queue, const QueueLedger& row) const;

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
    QueueState* queue;
    std::int64_t enqueuedMs;
    std::size_t offset;  // into bytes_
    std::size_t size;
  };
  struct Delete {
    QueueState* queue;
    std::uint64_t token;
    ItemCount item;
    ItemCount QueueLedger::*kind;
  };
  struct Removal {
    QueueState* queue;
    ItemCount expected;
  };

  static constexpr std::size_t mostEvictions = 1024;
  static constexpr std::size_t mostBytes = std::size_t{256} * 1024;

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
  std::vector<QueueState*> dirty_;
  std::vector<NewItem> newItems_;   // of the transaction in progress
  std::vector<QueueState*> added_;  // got their row in the transaction in progress
  Clock::time_point dirtySince_{};
  std::optional<SqliteError> error_;
  Clock::time_point lastFailure_{};
};

}  // namespace veld_report::host
