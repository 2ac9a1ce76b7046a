#include "host/queue/store_layout.h"

#include <sqlite3.h>

#include <string>

#include "host/queue/block_codec.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {
namespace {

// Distinguishes stores from other SQLite files: "vldq".
constexpr std::int64_t applicationId = 0x766c6471;

constexpr const char* blocksSql =
    "CREATE TABLE blocks(key INTEGER PRIMARY KEY, latest_ms INTEGER NOT NULL, data BLOB NOT NULL);"
    "CREATE TABLE gone(first INTEGER PRIMARY KEY, count INTEGER NOT NULL, sum INTEGER NOT NULL);";
// Of layouts 1 and 2.
constexpr const char* itemsSql =
    "CREATE TABLE items(token INTEGER PRIMARY KEY AUTOINCREMENT, queue INTEGER NOT NULL,"
    " enqueued_ms INTEGER NOT NULL, data BLOB NOT NULL);"
    "CREATE INDEX items_by_queue ON items(queue);";

constexpr const char* ledgerColumns[] = {
    "accepted", "accepted_bytes", "delivered", "delivered_bytes", "evicted", "evicted_bytes",
    "rejected", "rejected_bytes", "removed",   "removed_bytes",   "waiting", "waiting_bytes",
    "returned", "returned_bytes", "expired",   "expired_bytes",   "damaged", "damaged_bytes"};
static_assert(std::size(ledgerColumns) == 2 * QueueLedger::figures);

std::string FigureColumn(const char* column) { return std::string(column) + " INTEGER NOT NULL DEFAULT 0"; }

void InTransaction(SqliteConnection& connection, const std::string& sql) {
  connection.Execute("BEGIN IMMEDIATE");
  try {
    connection.Execute(sql);
    connection.Execute("COMMIT");
  } catch (...) {
    if (!connection.IsAutocommit()) connection.Execute("ROLLBACK");
    throw;
  }
}

}  // namespace

std::span<const char* const> LedgerColumns() { return ledgerColumns; }

std::string LayoutSql(std::int64_t version) {
  const bool hasBlocks = version >= 3;
  std::string columns;
  for (const char* column : std::span(ledgerColumns).first(version == 1 ? 14 : std::size(ledgerColumns)))
    columns += ", " + FigureColumn(column);
  for (const char* column : {"last", "front", "sum"}) {
    if (hasBlocks) columns += ", " + FigureColumn(column);
  }
  return "CREATE TABLE queues(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, present INTEGER NOT NULL" +
         columns + ");" + (hasBlocks ? blocksSql : itemsSql) +
         "PRAGMA application_id=" + std::to_string(applicationId) +
         ";PRAGMA user_version=" + std::to_string(version);
}

std::int64_t LayoutVersion(const SqliteConnection& connection) {
  if (connection.QueryInteger("PRAGMA application_id") != applicationId) return 0;
  return connection.QueryInteger("PRAGMA user_version");
}

std::int64_t SumOfQueue(std::int64_t id, std::string_view name, const QueuePositions& positions) {
  return SumOfRow(name, positions.last, positions.front, static_cast<std::uint64_t>(id));
}

std::int64_t SumOfGone(std::uint64_t first, std::uint64_t count) { return SumOfRow({}, first, count, 0); }

void LayOutStore(SqliteConnection& connection, const std::filesystem::path& file) {
  const std::int64_t version = LayoutVersion(connection);
  if (version == storeLayoutVersion) return;
  if (version > storeLayoutVersion) {
    throw StoreError("the store " + Utf8(file) + " has layout " + std::to_string(version) +
                     ", and this program knows layouts up to " + std::to_string(storeLayoutVersion) +
                     "; use the newer program that wrote it, or another folder");
  }
  if (version >= 1) {
    throw EarlierLayoutError("the store " + Utf8(file) + " has the earlier layout " +
                             std::to_string(version) + "; open it once for sending, which upgrades it");
  }
  if (connection.QueryInteger("PRAGMA page_count") != 0) {
    throw SqliteError(SQLITE_NOTADB, Utf8(file) + ": it isn't a store");
  }
  InTransaction(connection, LayoutSql(storeLayoutVersion));
}

}  // namespace veld_report::host
