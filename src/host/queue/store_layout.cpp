#include "host/queue/store_layout.h"

#include <sqlite3.h>

#include <string>
#include <system_error>

#include "host/queue/store_folder.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {
namespace {

// Distinguishes stores from other SQLite files: "vldq".
constexpr std::int64_t applicationId = 0x766c6471;

constexpr const char* ledgerColumns[] = {
    "accepted", "accepted_bytes", "delivered", "delivered_bytes", "evicted", "evicted_bytes",
    "rejected", "rejected_bytes", "removed",   "removed_bytes",   "waiting", "waiting_bytes",
    "returned", "returned_bytes", "expired",   "expired_bytes",   "damaged", "damaged_bytes"};
static_assert(std::size(ledgerColumns) == 2 * QueueLedger::figures);
constexpr std::size_t columnsOfLayout1 = 14;

std::string FigureColumn(const char* column) { return std::string(column) + " INTEGER NOT NULL DEFAULT 0"; }

std::string VersionSql() { return "PRAGMA user_version=" + std::to_string(storeLayoutVersion) + ";"; }

std::string NewLayoutSql() {
  std::string figures;
  for (const char* column : ledgerColumns) figures += ", " + FigureColumn(column);
  return "CREATE TABLE queues(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, present INTEGER NOT NULL" +
         figures +
         ");"
         "CREATE TABLE items(token INTEGER PRIMARY KEY AUTOINCREMENT, queue INTEGER NOT NULL,"
         " enqueued_ms INTEGER NOT NULL, data BLOB NOT NULL);"
         "CREATE INDEX items_by_queue ON items(queue);"
         "PRAGMA application_id=" +
         std::to_string(applicationId) + ";" + VersionSql();
}

std::string UpgradeSql() {
  std::string sql;
  for (std::size_t i = columnsOfLayout1; i < std::size(ledgerColumns); ++i) {
    sql += "ALTER TABLE queues ADD COLUMN " + FigureColumn(ledgerColumns[i]) + ";";
  }
  return sql + VersionSql();
}

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

// Copied through SQLite, so that the copy includes the log's content and the locks on the file remain.
void KeepCopy(SqliteConnection& connection, const std::filesystem::path& file, std::int64_t version) {
  const auto copy = EarlierLayoutCopy(file, version);
  std::filesystem::remove(copy);  // left by an interrupted upgrade
  PreparePrivateFile(copy);
  std::string quoted;
  for (const char character : copy.string()) quoted.append(character == '\'' ? 2 : 1, character);
  try {
    connection.Execute("VACUUM INTO '" + quoted + "'");
  } catch (const SqliteError& error) {
    std::filesystem::remove(copy);
    if (error.IsDamage()) throw;
    throw StoreError("can't keep a copy of " + file.string() + " before its upgrade: " + error.what() +
                     "; make room for " + copy.string());
  }
}

}  // namespace

std::span<const char* const> LedgerColumns() { return ledgerColumns; }

void LayOutStore(SqliteConnection& connection, const std::filesystem::path& file) {
  const std::int64_t version = connection.QueryInteger("PRAGMA user_version");
  const bool isStore = connection.QueryInteger("PRAGMA application_id") == applicationId;
  if (isStore && version > storeLayoutVersion) {
    throw StoreError("the store " + file.string() + " has layout " + std::to_string(version) +
                     ", and this program knows layouts up to " + std::to_string(storeLayoutVersion) +
                     "; use the newer program that wrote it, or another folder");
  }
  if (isStore && version == storeLayoutVersion) return;
  if (isStore && version >= 1) {
    KeepCopy(connection, file, version);
    InTransaction(connection, UpgradeSql());
    return;
  }
  if (connection.QueryInteger("PRAGMA page_count") != 0) {
    throw SqliteError(SQLITE_NOTADB, file.string() + ": it isn't a store");
  }
  InTransaction(connection, NewLayoutSql());
}

std::filesystem::path EarlierLayoutCopy(const std::filesystem::path& file, std::int64_t version) {
  return file.string() + ".layout-" + std::to_string(version);
}

void RemoveEarlierLayoutCopies(const std::filesystem::path& file) noexcept {
  for (std::int64_t version = 1; version < storeLayoutVersion; ++version) {
    std::error_code ignored;
    std::filesystem::remove(EarlierLayoutCopy(file, version), ignored);
  }
}

}  // namespace veld_report::host
