// The SQLite file of one domain: its layout and the statements on it.
//
// It knows no locks, claims or grouping; queue_store.h has those. Every operation throws SqliteError, and
// whoever opened a transaction rolls it back then. One thread at a time.
//
// Layout (PRAGMA user_version is the layout's number):
//   queues  one row a queue name ever used: id, name, present, and the ledger's figures, two columns each
//   items   token, which AUTOINCREMENT never gives twice, queue id, time of Push in milliseconds since 1970,
//           and the bytes
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/queue/queue_ledger.h"
#include "host/queue/sqlite_connection.h"

namespace veld_report::host {

inline constexpr std::int64_t storeLayoutVersion = 1;

struct QueueRow {
  std::int64_t id = 0;
  std::string name;
  bool present = false;  // false: removed, only the figures are kept
  QueueLedger ledger;
};

// Views are valid until the next statement on the file.
struct ItemRow {
  std::uint64_t token = 0;
  std::int64_t enqueuedMs = 0;
  std::span<const std::uint8_t> data;
};

class StoreFile {
 public:
  // Opens the file, which exists, and lays it out if it is empty. Throws StoreError for a file of a later
  // layout, SqliteError for everything else.
  StoreFile(const std::filesystem::path& file, bool syncEveryCommit, const std::string& vfs);

  void Begin();
  void Commit();
  // Ends a transaction that failed, if SQLite hasn't done so by itself.
  void Rollback() noexcept;

  std::vector<QueueRow> LoadQueues();
  // Returns the id of the name's row, which is made if there is none.
  std::int64_t AddQueue(const std::string& name);
  // Adds `change` to the queue's figures.
  void UpdateQueue(std::int64_t id, bool present, const QueueLedger& change);

  void InsertItem(std::int64_t queueId, std::int64_t enqueuedMs, std::span<const std::uint8_t> data);
  // Returns whether the item was there.
  bool DeleteItem(std::uint64_t token);
  // Deletes all items of the queue and returns what they were.
  ItemCount DeleteItems(std::int64_t queueId);
  // The oldest item of the queue with a token above `after`. Call Finish when the views aren't needed any
  // more.
  std::optional<ItemRow> NextItem(std::int64_t queueId, std::uint64_t after);
  void Finish() { next_.Reset(); }
  // Time of Push of the oldest item, if there is one.
  std::optional<std::int64_t> OldestMs(std::int64_t queueId);

  SqliteConnection& Connection() { return connection_; }

 private:
  // Opens the connection's settings and the layout; a constructor's step before any statement is prepared.
  static SqliteConnection OpenLaidOut(const std::filesystem::path& file, bool syncEveryCommit,
                                      const std::string& vfs);

  SqliteConnection connection_;
  SqliteStatement begin_;
  SqliteStatement commit_;
  SqliteStatement loadQueues_;
  SqliteStatement addQueue_;
  SqliteStatement findQueue_;
  SqliteStatement updateQueue_;
  SqliteStatement insertItem_;
  SqliteStatement deleteItem_;
  SqliteStatement countItems_;
  SqliteStatement deleteItems_;
  SqliteStatement next_;
};

}  // namespace veld_report::host
