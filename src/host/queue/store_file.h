// The SQLite file of one domain: its layout and the statements on it.
//
// It knows no locks, claims or grouping; queue_store.h has those. Every operation throws SqliteError, and
// whoever opened a transaction rolls it back then. One thread at a time.
// The layout of the file is told in store_layout.h.
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

#include "host/queue/queue_ledger.h"
#include "host/queue/sqlite_connection.h"
#include "host/queue/wal_checkpointer.h"

namespace veld_report::host {

inline constexpr int storePageBytes = 4096;
// The log is written back into the file when it has grown by so many pages: a sync each time, but also the
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
    bool inspectOnly = false;  // nothing is written, the layout must be the present one
    std::string vfs{};
    // The log is written back by a thread (wal_checkpointer.h).
    bool logThread = false;
  };

  // Opens the file, which exists, and lays it out if it is empty. Throws StoreError for a file of a later
  // layout, SqliteError for everything else.
  StoreFile(const std::filesystem::path& file, const Settings& settings);

  // Reads the structure of the whole file. Throws SqliteError, as damage, if something is wrong with it.
  void QuickCheck();

  void Begin();
  // Also sees to it that the log is written back.
  void Commit();
  // Ends a transaction that failed, if SQLite hasn't done so by itself.
  void Rollback() noexcept;

  std::vector<QueueRow> LoadQueues();
  // Returns the id of the name's row, which is made if there is none.
  std::int64_t AddQueue(const std::string& name);
  // Adds `change` to the queue's figures. Its presence stays without a value.
  void UpdateQueue(std::int64_t id, std::optional<bool> present, const QueueLedger& change);

  // Their tokens ascend in the order given.
  void InsertItems(std::span<const NewItem> items);
  // With the token that the item had in another file. Returns false if the token is taken.
  bool RestoreItem(std::int64_t queueId, const ItemRow& item);
  // The next token will be above `token`.
  void RaiseTokens(std::uint64_t token);
  // Returns whether the item was there.
  bool DeleteItem(std::uint64_t token);
  // Deletes the items of all queues with tokens from `first` to `last`. Returns how many there were.
  std::int64_t DeleteRange(std::uint64_t first, std::uint64_t last);
  // Deletes all items of the queue and returns what they were.
  ItemCount DeleteItems(std::int64_t queueId);
  // Hands the queue's items with tokens above `after` to `take`, oldest first, until it has had `count` or
  // answers false. Returns whether there was no further one.
  bool ReadItems(std::int64_t queueId, std::uint64_t after, std::size_t count,
                 const std::function<bool(const ItemRow&)>& take);
  // The oldest item of the queue with a token above `after`. Call Finish when the views aren't needed any
  // more.
  std::optional<ItemRow> NextItem(std::int64_t queueId, std::uint64_t after);
  void Finish() { next_.Reset(); }
  // Time of Push of the oldest item, if there is one.
  std::optional<std::int64_t> OldestMs(std::int64_t queueId);
  // What the queue really holds, counted.
  ItemCount CountItems(std::int64_t queueId);

  // Changes when another connection has committed something.
  std::int64_t DataVersion();
  // Moves the log's content into the file as far as nobody is in the way, so that the log starts again at its
  // beginning.
  void Checkpoint();
  // Empties the log. With `rebuild` the file is written anew without the free space in it.
  void Compact(bool rebuild);

  SqliteConnection& Connection() { return connection_; }

 private:
  static SqliteConnection OpenLaidOut(const std::filesystem::path& file, const Settings& settings);
  SqliteStatement& InsertStatement(std::size_t form);
  ItemRow CurrentItem() const;

  // A statement's own cost and that of the token counter come once for all its rows.
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
