#include "host/queue/store_file.h"

#include "host/queue/store_folder.h"

namespace veld_report::host {
namespace {

// Tells the files of this layout from other SQLite files: "vldq".
constexpr std::int64_t applicationId = 0x766c6471;

// In the order of QueueLedger::All, items before bytes.
constexpr const char* ledgerColumns[] = {"accepted", "accepted_bytes", "delivered", "delivered_bytes",
                                         "evicted",  "evicted_bytes",  "rejected",  "rejected_bytes",
                                         "removed",  "removed_bytes",  "waiting",   "waiting_bytes",
                                         "returned", "returned_bytes"};
static_assert(std::size(ledgerColumns) == 2 * QueueLedger::figures);

std::string LayoutSql() {
  std::string figures;
  for (const char* column : ledgerColumns)
    figures += std::string(", ") + column + " INTEGER NOT NULL DEFAULT 0";
  return "BEGIN IMMEDIATE;"
         "CREATE TABLE queues(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, present INTEGER NOT NULL" +
         figures +
         ");"
         "CREATE TABLE items(token INTEGER PRIMARY KEY AUTOINCREMENT, queue INTEGER NOT NULL,"
         " enqueued_ms INTEGER NOT NULL, data BLOB NOT NULL);"
         "CREATE INDEX items_by_queue ON items(queue);"
         "PRAGMA application_id=" +
         std::to_string(applicationId) + ";PRAGMA user_version=" + std::to_string(storeLayoutVersion) +
         ";COMMIT;";
}

std::string LoadSql() {
  std::string columns = "id, name, present";
  for (const char* column : ledgerColumns) columns += std::string(", ") + column;
  return "SELECT " + columns + " FROM queues ORDER BY id";
}

std::string UpdateSql() {
  std::string sql = "UPDATE queues SET present=?2";
  int parameter = 3;
  for (const char* column : ledgerColumns) {
    sql += std::string(", ") + column + "=" + column + "+?" + std::to_string(parameter++);
  }
  return sql + " WHERE id=?1";
}

void LayOut(SqliteConnection& connection, const std::filesystem::path& file) {
  const std::int64_t version = connection.QueryInteger("PRAGMA user_version");
  if (version > storeLayoutVersion) {
    throw StoreError("the store " + file.string() + " has layout " + std::to_string(version) +
                     ", and this program knows layouts up to " + std::to_string(storeLayoutVersion) +
                     ": use the newer program that wrote it, or another folder");
  }
  if (version == storeLayoutVersion) return;
  if (connection.QueryInteger("SELECT count(*) FROM sqlite_schema") != 0) {
    throw StoreError(file.string() +
                     " is a SQLite file of something else and was left alone: choose another folder");
  }
  connection.Execute(LayoutSql());
}

}  // namespace

SqliteConnection StoreFile::OpenLaidOut(const std::filesystem::path& file, bool syncEveryCommit,
                                        const std::string& vfs) {
  SqliteConnection connection(file, SqliteConnection::Access::kReadWrite, vfs);
  LayOut(connection, file);
  connection.Execute("PRAGMA journal_mode=WAL");
  connection.Execute(syncEveryCommit ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
  connection.Execute("PRAGMA secure_delete=ON");
  return connection;
}

StoreFile::StoreFile(const std::filesystem::path& file, bool syncEveryCommit, const std::string& vfs)
    : connection_(OpenLaidOut(file, syncEveryCommit, vfs)),
      begin_(connection_, "BEGIN IMMEDIATE"),
      commit_(connection_, "COMMIT"),
      loadQueues_(connection_, LoadSql()),
      addQueue_(connection_, "INSERT OR IGNORE INTO queues(name, present) VALUES(?1, 0)"),
      findQueue_(connection_, "SELECT id FROM queues WHERE name=?1"),
      updateQueue_(connection_, UpdateSql()),
      insertItem_(connection_, "INSERT INTO items(queue, enqueued_ms, data) VALUES(?1, ?2, ?3)"),
      deleteItem_(connection_, "DELETE FROM items WHERE token=?1"),
      countItems_(connection_, "SELECT count(*), coalesce(sum(length(data)), 0) FROM items WHERE queue=?1"),
      deleteItems_(connection_, "DELETE FROM items WHERE queue=?1"),
      next_(connection_,
            "SELECT token, enqueued_ms, data FROM items WHERE queue=?1 AND token>?2 ORDER BY token LIMIT 1") {
}

void StoreFile::Begin() { begin_.Run(); }

void StoreFile::Commit() { commit_.Run(); }

void StoreFile::Rollback() noexcept {
  try {
    if (!connection_.IsAutocommit()) connection_.Execute("ROLLBACK");
  } catch (const SqliteError&) {
    // Nothing is left to undo: a rollback fails only where SQLite has made one already.
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

void StoreFile::UpdateQueue(std::int64_t id, bool present, const QueueLedger& change) {
  updateQueue_.Bind(1, id).Bind(2, std::int64_t{present});
  int parameter = 3;
  for (const ItemCount* figure : change.All()) {
    updateQueue_.Bind(parameter++, figure->items);
    updateQueue_.Bind(parameter++, figure->bytes);
  }
  updateQueue_.Run();
}

void StoreFile::InsertItem(std::int64_t queueId, std::int64_t enqueuedMs,
                           std::span<const std::uint8_t> data) {
  insertItem_.Bind(1, queueId).Bind(2, enqueuedMs).Bind(3, data).Run();
}

bool StoreFile::DeleteItem(std::uint64_t token) {
  deleteItem_.Bind(1, static_cast<std::int64_t>(token)).Run();
  return connection_.Changes() != 0;
}

ItemCount StoreFile::DeleteItems(std::int64_t queueId) {
  ItemCount count;
  {
    const StatementScope scope(countItems_);
    countItems_.Bind(1, queueId).Step();
    count = {countItems_.Integer(0), countItems_.Integer(1)};
  }
  deleteItems_.Bind(1, queueId).Run();
  return count;
}

std::optional<ItemRow> StoreFile::NextItem(std::int64_t queueId, std::uint64_t after) {
  next_.Reset();
  next_.Bind(1, queueId).Bind(2, static_cast<std::int64_t>(after));
  if (!next_.Step()) {
    next_.Reset();
    return std::nullopt;
  }
  return ItemRow{static_cast<std::uint64_t>(next_.Integer(0)), next_.Integer(1), next_.Blob(2)};
}

std::optional<std::int64_t> StoreFile::OldestMs(std::int64_t queueId) {
  const auto row = NextItem(queueId, 0);
  if (!row) return std::nullopt;
  const std::int64_t result = row->enqueuedMs;
  Finish();
  return result;
}

}  // namespace veld_report::host
