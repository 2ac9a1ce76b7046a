#include "host/queue/store_file.h"

#include <sqlite3.h>

#include "host/queue/store_folder.h"
#include "host/queue/store_layout.h"

namespace veld_report::host {
namespace {

std::string LoadSql() {
  std::string columns = "id, name, present";
  for (const char* column : LedgerColumns()) columns += std::string(", ") + column;
  return "SELECT " + columns + " FROM queues ORDER BY id";
}

std::string UpdateSql() {
  std::string sql = "UPDATE queues SET present=coalesce(?2, present)";
  int parameter = 3;
  for (const char* column : LedgerColumns()) {
    sql += std::string(", ") + column + "=" + column + "+?" + std::to_string(parameter++);
  }
  return sql + " WHERE id=?1";
}

std::string InsertSql(std::size_t rows) {
  std::string sql = "INSERT INTO items(queue, enqueued_ms, data) VALUES(?, ?, ?)";
  for (std::size_t row = 1; row < rows; ++row) sql += ", (?, ?, ?)";
  return sql;
}

}  // namespace

SqliteConnection StoreFile::OpenLaidOut(const std::filesystem::path& file, const Settings& settings) {
  SqliteConnection connection(file, SqliteConnection::Access::readWrite, settings.vfs);
  // A file that is refused must not change.
  connection.KeepLogOnClose(true);
  if (settings.inspectOnly) {
    connection.Execute("PRAGMA query_only=ON");
    if (connection.QueryInteger("PRAGMA user_version") == storeLayoutVersion) return connection;
    throw StoreError("the store " + file.string() +
                     " has another layout than this program's; open it once for sending, "
                     "or use the program that wrote it");
  }
  LayOutStore(connection, file);
  connection.KeepLogOnClose(false);
  connection.Execute("PRAGMA journal_mode=WAL");
  connection.Execute(settings.syncEveryCommit ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
  connection.Execute("PRAGMA wal_autocheckpoint=" + std::to_string(settings.logThread ? 0 : logPages));
  connection.Execute("PRAGMA secure_delete=ON");
  connection.Execute("PRAGMA temp_store=MEMORY");
  return connection;
}

StoreFile::StoreFile(const std::filesystem::path& file, const Settings& settings)
    : connection_(OpenLaidOut(file, settings)),
      begin_(connection_, "BEGIN IMMEDIATE"),
      commit_(connection_, "COMMIT"),
      loadQueues_(connection_, LoadSql()),
      addQueue_(connection_, "INSERT OR IGNORE INTO queues(name, present) VALUES(?1, 0)"),
      findQueue_(connection_, "SELECT id FROM queues WHERE name=?1"),
      updateQueue_(connection_, UpdateSql()),
      restoreItem_(connection_,
                   "INSERT OR IGNORE INTO items(queue, enqueued_ms, data, token) VALUES(?1, ?2, ?3, ?4)"),
      deleteItem_(connection_, "DELETE FROM items WHERE token=?1"),
      deleteRange_(connection_, "DELETE FROM items WHERE token BETWEEN ?1 AND ?2"),
      countItems_(connection_, "SELECT count(*), coalesce(sum(length(data)), 0) FROM items WHERE queue=?1"),
      deleteItems_(connection_, "DELETE FROM items WHERE queue=?1"),
      next_(connection_,
            "SELECT token, enqueued_ms, data FROM items WHERE queue=?1 AND token>?2 ORDER BY token LIMIT ?3"),
      dataVersion_(connection_, "PRAGMA data_version") {
  if (!settings.logThread) return;
  log_.emplace(file);
  connection_.CountLogPages();
}

void StoreFile::QuickCheck() {
  const std::string result = connection_.QueryText("PRAGMA quick_check(1)");
  if (result != "ok") throw SqliteError(SQLITE_CORRUPT, "the store's file is damaged: " + result);
}

void StoreFile::Begin() { begin_.Run(); }

void StoreFile::Commit() {
  commit_.Run();
  if (!log_ || !log_->MustWriteBack(connection_.LogPages())) return;
  try {
    Checkpoint();
  } catch (const SqliteError&) {
    // What was committed is in the log; the next commit tries again.
  }
}

void StoreFile::Rollback() noexcept {
  try {
    if (!connection_.IsAutocommit()) connection_.Execute("ROLLBACK");
  } catch (const SqliteError&) {
    // There is nothing left to undo: a rollback only fails if SQLite has rolled back already.
  }
}

std::vector<QueueRow> StoreFile::LoadQueues() {
  const StatementScope scope(loadQueues_);
  std::vector<QueueRow> rows;
  while (loadQueues_.Step()) {
    QueueRow row;
    row.id = loadQueues_.Integer(0);
    row.name = loadQueues_.Text(1);
    row.present = loadQueues_.Integer(2) != 0;
    int column = 3;
    for (ItemCount* figure : row.ledger.All()) {
      figure->items = loadQueues_.Integer(column++);
      figure->bytes = loadQueues_.Integer(column++);
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::int64_t StoreFile::AddQueue(const std::string& name) {
  addQueue_.Bind(1, name).Run();
  const StatementScope scope(findQueue_);
  findQueue_.Bind(1, name).Step();
  return findQueue_.Integer(0);
}

void StoreFile::UpdateQueue(std::int64_t id, std::optional<bool> present, const QueueLedger& change) {
  updateQueue_.Bind(1, id);
  if (present) {
    updateQueue_.Bind(2, std::int64_t{*present});
  } else {
    updateQueue_.BindNull(2);
  }
  int parameter = 3;
  for (const ItemCount* figure : change.All()) {
    updateQueue_.Bind(parameter++, figure->items);
    updateQueue_.Bind(parameter++, figure->bytes);
  }
  updateQueue_.Run();
}

SqliteStatement& StoreFile::InsertStatement(std::size_t form) {
  if (!insertItems_[form]) insertItems_[form].emplace(connection_, InsertSql(insertRows[form]));
  return *insertItems_[form];
}

void StoreFile::InsertItems(std::span<const NewItem> items) {
  for (std::size_t form = 0; form < insertRows.size(); ++form) {
    while (items.size() >= insertRows[form]) {
      SqliteStatement& insert = InsertStatement(form);
      int parameter = 1;
      for (const NewItem& item : items.first(insertRows[form])) {
        insert.Bind(parameter, item.queueId)
            .Bind(parameter + 1, item.enqueuedMs)
            .Bind(parameter + 2, item.data);
        parameter += 3;
      }
      insert.Run();
      items = items.subspan(insertRows[form]);
    }
  }
}

bool StoreFile::RestoreItem(std::int64_t queueId, const ItemRow& item) {
  restoreItem_.Bind(1, queueId).Bind(2, item.enqueuedMs).Bind(3, item.data);
  restoreItem_.Bind(4, static_cast<std::int64_t>(item.token)).Run();
  return connection_.Changes() != 0;
}

void StoreFile::RaiseTokens(std::uint64_t token) {
  const std::string value = std::to_string(token);
  // SQLite only creates the row with the first item.
  connection_.Execute(
      "INSERT INTO sqlite_sequence(name, seq) SELECT 'items', 0"
      " WHERE NOT EXISTS(SELECT 1 FROM sqlite_sequence WHERE name='items');"
      "UPDATE sqlite_sequence SET seq=max(seq, " +
      value + ") WHERE name='items'");
}

std::uint64_t StoreFile::LastToken() const {
  constexpr char sql[] = "SELECT coalesce(max(seq), 0) FROM sqlite_sequence WHERE name = 'items'";
  return static_cast<std::uint64_t>(connection_.QueryInteger(sql));
}

bool StoreFile::DeleteItem(std::uint64_t token) {
  deleteItem_.Bind(1, static_cast<std::int64_t>(token)).Run();
  return connection_.Changes() != 0;
}

std::int64_t StoreFile::DeleteRange(std::uint64_t first, std::uint64_t last) {
  deleteRange_.Bind(1, static_cast<std::int64_t>(first)).Bind(2, static_cast<std::int64_t>(last)).Run();
  return connection_.Changes();
}

ItemCount StoreFile::CountItems(std::int64_t queueId) {
  const StatementScope scope(countItems_);
  countItems_.Bind(1, queueId).Step();
  return {countItems_.Integer(0), countItems_.Integer(1)};
}

ItemCount StoreFile::DeleteItems(std::int64_t queueId) {
  const ItemCount count = CountItems(queueId);
  deleteItems_.Bind(1, queueId).Run();
  return count;
}

std::optional<ItemRow> StoreFile::NextItem(std::int64_t queueId, std::uint64_t after) {
  next_.Reset();
  next_.Bind(1, queueId).Bind(2, static_cast<std::int64_t>(after)).Bind(3, 1);
  if (next_.Step()) return CurrentItem();
  next_.Reset();
  return std::nullopt;
}

ItemRow StoreFile::CurrentItem() const {
  return {static_cast<std::uint64_t>(next_.Integer(0)), next_.Integer(1), next_.Blob(2)};
}

bool StoreFile::ReadItems(std::int64_t queueId, std::uint64_t after, std::size_t count,
                          const std::function<bool(const ItemRow&)>& take) {
  const StatementScope scope(next_);
  next_.Bind(1, queueId).Bind(2, static_cast<std::int64_t>(after)).Bind(3, static_cast<std::int64_t>(count));
  for (std::size_t i = 0; i < count; ++i) {
    if (!next_.Step()) return true;
    if (!take(CurrentItem())) return false;
  }
  return false;
}

std::optional<std::int64_t> StoreFile::OldestMs(std::int64_t queueId) {
  const auto row = NextItem(queueId, 0);
  if (!row) return std::nullopt;
  const std::int64_t result = row->enqueuedMs;
  Finish();
  return result;
}

std::optional<std::int64_t> StoreFile::YoungestMs() const {
  try {
    SqliteStatement last(connection_, "SELECT enqueued_ms FROM items ORDER BY token DESC LIMIT 1");
    if (last.Step()) return last.Integer(0);
  } catch (const SqliteError&) {
    // Whoever needs the items themselves gets the error.
  }
  return std::nullopt;
}

void StoreFile::LimitTimes(std::int64_t latestMs) {
  SqliteStatement update(connection_, "UPDATE items SET enqueued_ms=?1 WHERE enqueued_ms>?1");
  update.Bind(1, latestMs).Run();
}

std::int64_t StoreFile::FreeBytes() const {
  try {
    return connection_.QueryInteger("PRAGMA freelist_count") * storePageBytes;
  } catch (const SqliteError&) {
    return 0;
  }
}

std::int64_t StoreFile::UsedBytes() const {
  try {
    return connection_.QueryInteger("PRAGMA page_count") * storePageBytes - FreeBytes();
  } catch (const SqliteError&) {
    return INT64_MAX;
  }
}

std::int64_t StoreFile::DataVersion() {
  const StatementScope scope(dataVersion_);
  dataVersion_.Step();
  return dataVersion_.Integer(0);
}

void StoreFile::Checkpoint() {
  if (log_) log_->WaitUntilIdle();
  connection_.Execute("PRAGMA wal_checkpoint(PASSIVE)");
}

void StoreFile::Compact(bool rebuild) {
  if (log_) log_->WaitUntilIdle();
  connection_.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
  if (!rebuild) return;
  connection_.Execute("VACUUM");
  connection_.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
}

}  // namespace veld_report::host
