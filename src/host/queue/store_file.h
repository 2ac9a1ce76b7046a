// The SQLite file of one domain: its layout, and the statements on it.
//
// It has no locks, claims or groups; those are in queue_store.h. Every operation throws SqliteError; the
// caller that began a transaction then rolls it back. One thread at a time. The layout is described in
// store_layout.h.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/queue/block_codec.h"
#include "host/queue/item_key.h"
#include "host/queue/queue_positions.h"
#include "host/queue/sqlite_connection.h"
#include "host/queue/wal_checkpointer.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

inline constexpr int storePageBytes = 4096;
// The log is checkpointed when it has grown by this many pages. That takes a sync each time. It also is the
// room that a full disk must still give (disk_reserve.h).
inline constexpr int logPages = 512;

struct QueueRow {
  std::int64_t id = 0;
  std::string name;
  bool present = false;  // false: removed, only the figures are kept
  QueueLedger ledger;
  QueuePositions positions;
};

// A view, valid until the next statement on the file.
struct StoredBlock {
  std::uint64_t key = 0;
  std::span<const std::uint8_t> data;
};

class StoreFile {
 public:
  struct Settings {
    bool syncEveryCommit = false;
    bool secureDelete = false;
    bool inspectOnly = false;  // nothing is written; the layout must be current
    std::string vfs{};
    // A thread checkpoints the log (wal_checkpointer.h).
    bool logThread = false;
  };

  // Opens an existing file and initialises it if it is empty. Throws StoreError for a file with a later
  // layout, SqliteError for everything else.
  StoreFile(const std::filesystem::path& file, const Settings& settings);

  // Checks the structure of the whole file. Throws SqliteError, as damage, if something is wrong.
  void QuickCheck();

  void Begin();
  // Also makes sure that the log is checkpointed.
  void Commit();
  // Ends a failed transaction, unless SQLite has done so.
  void Rollback() noexcept;

  // Both throw SqliteError, as damage, also for a row whose sum is wrong.
  std::vector<QueueRow> LoadQueues();
  QueueRow LoadQueue(std::int64_t id);
  // Returns the name's row, and creates it if there is none. Must be followed by UpdateQueue.
  QueueRow AddQueue(const std::string& name);
  // Adds `change` to the queue's figures. `present` without a value leaves the presence as it is.
  void UpdateQueue(std::int64_t id, const std::string& name, const QueuePositions& positions,
                   std::optional<bool> present, const QueueLedger& change);
  // Replaces what has left a queue beyond its front.
  void ReplaceGone(std::int64_t id, const RangeSet& before, const RangeSet& after);
  // The queues that don't exist yet begin after this position.
  void BeginAfter(std::uint64_t position);

  // The items get the keys from `firstKey` on. Both return the size of the block.
  std::size_t AddBlock(std::uint64_t firstKey, std::span<const NewItem> items);
  std::size_t ReplaceBlock(std::uint64_t firstKey, std::span<const NewItem> items);
  // The queue's block in which the item of that key stands if it exists: the last one that doesn't begin
  // after it. Call Finish once the view isn't needed any more.
  std::optional<StoredBlock> FindBlock(std::uint64_t key);
  void Finish() { findBlock_.Reset(); }
  // The items of the block that begins with that key. Nothing if there is none, or if anything in it is
  // damaged: written again, it would have good sums.
  std::optional<BlockBuilder> CopyBlock(std::uint64_t key);
  // Makes one block of those that hold the items from `firstKey`, with which the first one begins, to
  // `lastKey`, with which the last one ends. Changes nothing if that isn't so, or if any item is damaged.
  void MergeBlocks(std::uint64_t firstKey, std::uint64_t lastKey);
  // Deletes the blocks of which nothing is left if all positions of a range are gone. `range` is as large as
  // it can be. `last`: of the queue. Deletes `limit` blocks at most; returns true if that was enough.
  bool DeleteBlocks(std::int64_t queueId, RangeSet::Range range, std::uint64_t last, std::size_t limit);
  // Whether what is deleted from here on is overwritten, in the pages that it frees, too.
  void OverwriteDeleted(bool overwrite);

  // The time of the youngest item in the file; nothing if there is none, or it can't be read just now. Reads
  // a page for every few blocks.
  std::optional<std::int64_t> YoungestMs() const;
  // Gives all items with a later time this one, in a transaction of its own.
  void LimitTimes(std::int64_t latestMs);

  // The room inside the file that nothing uses; 0 if it can't be read just now.
  std::int64_t FreeBytes() const;
  // The rest of the file; INT64_MAX if it can't be read just now.
  std::int64_t UsedBytes() const;
  // Changes when another connection has committed something.
  std::int64_t DataVersion();
  // Checkpoints the log as far as nobody is in the way, so that it restarts at its beginning.
  void Checkpoint();
  // Empties the log. With `rebuild` the file is also rewritten without its free space.
  void Compact(bool rebuild);

  SqliteConnection& Connection() { return connection_; }

 private:
  static SqliteConnection OpenLaidOut(const std::filesystem::path& file, const Settings& settings);
  std::map<std::int64_t, RangeSet> LoadGone(std::int64_t firstId, std::int64_t lastId);

  SqliteConnection connection_;
  const bool secureDelete_;
  SqliteStatement begin_;
  SqliteStatement commit_;
  SqliteStatement loadQueues_;
  SqliteStatement loadGone_;
  SqliteStatement addQueue_;
  SqliteStatement findQueue_;
  SqliteStatement updateQueue_;
  SqliteStatement addGone_;
  SqliteStatement deleteGone_;
  SqliteStatement addBlock_;
  SqliteStatement replaceBlock_;
  SqliteStatement findBlock_;
  SqliteStatement lastKey_;
  SqliteStatement nthKey_;
  SqliteStatement deleteBlocks_;
  SqliteStatement dataVersion_;
  std::vector<std::uint8_t> block_;  // that is being written
  std::optional<WalCheckpointer> log_;
};

}  // namespace veld_report::host
