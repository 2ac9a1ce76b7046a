// The SQLite file of one domain: its layout, and the statements on it.
//
// It has no locks, claims or groups; those are in queue_store.h. Every operation throws SqliteError; the
// caller that began a transaction then rolls it back. One thread at a time. The layout is described in
// store_layout.h.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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
};

struct NewItem {
  std::int64_t queueId = 0;
  std::int64_t enqueuedMs = 0;
  std::span<const std::uint8_t> data;
};

// Views are valid until the next statement on the file.
struct ItemRow {
  std::uint64_t token = 0;
  std::int64_t enqueuedMs = 0;
  std::span<const std::uint8_t> data;
};

class StoreFile {
 public:
  struct Settings {
    bool syncEveryCommit = false;
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

  std::vector<QueueRow> LoadQueues();
  // Returns the id of the name's row, and creates the row if there is none.
  std::int64_t AddQueue(const std::string& name);
  // Adds `change` to the queue's figures. `present` without a value leaves the presence as it is.
  void UpdateQueue(std::int64_t id, std::optional<bool> present, const QueueLedger& change);

  // The tokens ascend in the given order.
  void InsertItems(std::span<const NewItem> items);
  // Restores an item with its token from another file. False if the token is taken.
  bool RestoreItem(std::int64_t queueId, const ItemRow& item);
  // Makes the next token greater than `token`.
  void RaiseTokens(std::uint64_t token);
  // The token of the youngest item that was ever in the file; 0 if there was none.
  std::uint64_t LastToken() const;
  // Returns true if the item was there.
  bool DeleteItem(std::uint64_t token);
  // Deletes the items of all queues with tokens from `first` to `last`. Returns how many there were.
  std::int64_t DeleteRange(std::uint64_t first, std::uint64_t last);
  // Deletes all items of the queue. Returns their count and size.
  ItemCount DeleteItems(std::int64_t queueId);
  // Calls `take` for the queue's items with tokens above `after`, oldest first, until it has had `count` or
  // `take` returns false. Returns true if there were no more.
  bool ReadItems(std::int64_t queueId, std::uint64_t after, std::size_t count,
                 const std::function<bool(const ItemRow&)>& take);
  // The oldest item of the queue with a token above `after`. Call Finish once the views aren't needed any
  // more.
  std::optional<ItemRow> NextItem(std::int64_t queueId, std::uint64_t after);
  void Finish() { next_.Reset(); }
  // The time of the oldest item's Push, if there is an item.
  std::optional<std::int64_t> OldestMs(std::int64_t queueId);
  // The time of the last item in the file; nothing if there is none, or it can't be read just now.
  std::optional<std::int64_t> YoungestMs() const;
  // Gives all items with a later time this one.
  void LimitTimes(std::int64_t latestMs);
  // The actual content of the queue, counted.
  ItemCount CountItems(std::int64_t queueId);

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
  SqliteStatement& InsertStatement(std::size_t form);
  ItemRow CurrentItem() const;

  // The fixed costs of a statement and of the token counter come once for all its rows.
  static constexpr std::array<std::size_t, 3> insertRows{64, 8, 1};

  SqliteConnection connection_;
  SqliteStatement begin_;
  SqliteStatement commit_;
  SqliteStatement loadQueues_;
  SqliteStatement addQueue_;
  SqliteStatement findQueue_;
  SqliteStatement updateQueue_;
  std::array<std::optional<SqliteStatement>, insertRows.size()> insertItems_;  // made when first used
  SqliteStatement restoreItem_;
  SqliteStatement deleteItem_;
  SqliteStatement deleteRange_;
  SqliteStatement countItems_;
  SqliteStatement deleteItems_;
  SqliteStatement next_;
  SqliteStatement dataVersion_;
  std::optional<WalCheckpointer> log_;
};

}  // namespace veld_report::host
