#include "host/queue/store_file.h"

#include <sqlite3.h>

#include <algorithm>

#include "host/platform/file.h"
#include "host/queue/store_folder.h"
#include "host/queue/store_layout.h"

namespace veld_report::host {
namespace {

std::string LoadSql() {
  std::string columns = "id, name, present";
  for (const char* column : LedgerColumns()) columns += std::string(", ") + column;
  return "SELECT " + columns + ", last, front, sum FROM queues";
}

std::string UpdateSql() {
  std::string sql = "UPDATE queues SET present=coalesce(?2, present), last=?3, front=?4, sum=?5";
  int parameter = 6;
  for (const char* column : LedgerColumns()) {
    sql += std::string(", ") + column + "=" + column + "+?" + std::to_string(parameter++);
  }
  return sql + " WHERE id=?1";
}

std::int64_t Signed(std::uint64_t value) { return static_cast<std::int64_t>(value); }

// Before SQLite makes them. If one can't be made, SQLite fails too, or it is only being removed.
void MakeLogPrivate(const std::filesystem::path& file) {
  if (!filesTakeFoldersRights) return;
  for (const char* suffix : {"-wal", "-shm"}) {
    const auto companion = WithEnding(file, suffix);
    if (!File::Open(companion, File::Mode::makeNew)) RestrictToOwner(companion);
  }
}

[[noreturn]] void FailSum(const std::string& what) {
  throw SqliteError(SQLITE_CORRUPT, "the store's file is damaged: " + what + " has a wrong sum");
}

QueueRow CurrentQueue(const SqliteStatement& statement, bool check) {
  QueueRow row;
  row.id = statement.Integer(0);
  row.name = statement.Text(1);
  row.present = statement.Integer(2) != 0;
  int column = 3;
  for (ItemCount* figure : row.ledger.All()) {
    figure->items = statement.Integer(column++);
    figure->bytes = statement.Integer(column++);
  }
  row.positions.last = static_cast<std::uint64_t>(statement.Integer(column++));
  row.positions.front = static_cast<std::uint64_t>(statement.Integer(column++));
  if (check && statement.Integer(column) != SumOfQueue(row.id, row.name, row.positions))
    FailSum("the row of queue " + row.name);
  return row;
}

}  // namespace

SqliteConnection StoreFile::OpenLaidOut(const std::filesystem::path& file, const Settings& settings) {
  if (!settings.inspectOnly) MakeLogPrivate(file);
  SqliteConnection connection(file, SqliteConnection::Access::readWrite, settings.vfs);
  // A file that is refused must not change.
  connection.KeepLogOnClose(true);
  if (settings.inspectOnly) {
    connection.Execute("PRAGMA query_only=ON");
    if (connection.QueryInteger("PRAGMA user_version") == storeLayoutVersion) return connection;
    throw StoreError("the store " + Utf8(file) +
                     " has another layout than this program's; open it once for sending, "
                     "or use the program that wrote it");
  }
  LayOutStore(connection, file);
  connection.KeepLogOnClose(false);
  MakeLogPrivate(file);  // SQLite removes the log of a file that has nothing yet
  connection.Execute("PRAGMA journal_mode=WAL");
  connection.Execute(settings.syncEveryCommit ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
  connection.Execute("PRAGMA wal_autocheckpoint=" + std::to_string(settings.logThread ? 0 : logPages));
  connection.Execute(settings.secureDelete ? "PRAGMA secure_delete=ON" : "PRAGMA secure_delete=FAST");
  connection.Execute("PRAGMA temp_store=MEMORY");
  return connection;
}

StoreFile::StoreFile(const std::filesystem::path& file, const Settings& settings)
    : connection_(OpenLaidOut(file, settings)),
      secureDelete_(settings.secureDelete),
      begin_(connection_, "BEGIN IMMEDIATE"),
      commit_(connection_, "COMMIT"),
      loadQueues_(connection_, LoadSql() + " ORDER BY id"),
      loadGone_(connection_, "SELECT first, count, sum FROM gone WHERE first BETWEEN ?1 AND ?2"),
      addQueue_(connection_,
                "INSERT OR IGNORE INTO queues(name, present, last, front) SELECT ?1, 0, after, after FROM"
                " (SELECT coalesce((SELECT count FROM gone WHERE first=0), 0) AS after)"),
      findQueue_(connection_, LoadSql() + " WHERE name=?1 OR id=?2"),
      updateQueue_(connection_, UpdateSql()),
      addGone_(connection_, "INSERT OR REPLACE INTO gone(first, count, sum) VALUES(?1, ?2, ?3)"),
      deleteGone_(connection_, "DELETE FROM gone WHERE first=?1"),
      addBlock_(connection_, "INSERT OR REPLACE INTO blocks(key, latest_ms, data) VALUES(?1, ?2, ?3)"),
      replaceBlock_(connection_, "UPDATE blocks SET latest_ms=?2, data=?3 WHERE key=?1"),
      findBlock_(connection_,
                 "SELECT key, data FROM blocks WHERE key BETWEEN ?1 AND ?2 ORDER BY key DESC LIMIT 1"),
      lastKey_(connection_, "SELECT max(key) FROM blocks WHERE key<=?1"),
      nthKey_(connection_, "SELECT key FROM blocks WHERE key>=?1 ORDER BY key LIMIT 1 OFFSET ?2"),
      deleteBlocks_(connection_, "DELETE FROM blocks WHERE key>=?1 AND key<?2"),
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
  std::map<std::int64_t, RangeSet> gone;
  while (loadQueues_.Step()) {
    // While the first statement runs, the second one sees the same state of the file.
    if (rows.empty()) gone = LoadGone(1, maxQueueId);
    rows.push_back(CurrentQueue(loadQueues_, true));
    if (!gone.empty()) rows.back().positions.gone = std::move(gone[rows.back().id]);
  }
  return rows;
}

QueueRow StoreFile::LoadQueue(std::int64_t id) {
  const StatementScope scope(findQueue_);
  findQueue_.BindNull(1).Bind(2, id);
  if (!findQueue_.Step()) throw SqliteError(SQLITE_CORRUPT, "the row of a queue is missing");
  QueueRow row = CurrentQueue(findQueue_, true);
  row.positions.gone = std::move(LoadGone(id, id)[id]);
  return row;
}

std::map<std::int64_t, RangeSet> StoreFile::LoadGone(std::int64_t firstId, std::int64_t lastId) {
  const StatementScope scope(loadGone_);
  loadGone_.Bind(1, Signed(KeyOf(firstId, 0))).Bind(2, Signed(KeyOf(lastId, maxPosition)));
  std::map<std::int64_t, RangeSet> result;
  while (loadGone_.Step()) {
    const auto first = static_cast<std::uint64_t>(loadGone_.Integer(0));
    const auto count = static_cast<std::uint64_t>(loadGone_.Integer(1));
    if (loadGone_.Integer(2) != SumOfGone(first, count)) FailSum("a row of the table gone");
    result[QueueOf(first)].Add(PositionOf(first), PositionOf(first) + count - 1);
  }
  return result;
}

QueueRow StoreFile::AddQueue(const std::string& name) {
  addQueue_.Bind(1, name).Run();
  const StatementScope scope(findQueue_);
  findQueue_.Bind(1, name).Bind(2, 0);
  findQueue_.Step();
  QueueRow row = CurrentQueue(findQueue_, false);
  row.positions.gone = std::move(LoadGone(row.id, row.id)[row.id]);
  if (row.id <= maxQueueId) return row;
  throw SqliteError(SQLITE_TOOBIG, "the store has had " + std::to_string(maxQueueId) +
                                       " queue names, and no more are possible; use another folder");
}

void StoreFile::UpdateQueue(std::int64_t id, const std::string& name, const QueuePositions& positions,
                            std::optional<bool> present, const QueueLedger& change) {
  if (positions.last > maxPosition)
    throw SqliteError(SQLITE_TOOBIG, "queue " + name + " has had as many items as are possible");
  updateQueue_.Bind(1, id);
  if (present) {
    updateQueue_.Bind(2, std::int64_t{*present});
  } else {
    updateQueue_.BindNull(2);
  }
  updateQueue_.Bind(3, Signed(positions.last)).Bind(4, Signed(positions.front));
  updateQueue_.Bind(5, SumOfQueue(id, name, positions));
  int parameter = 6;
  for (const ItemCount* figure : change.All()) {
    updateQueue_.Bind(parameter++, figure->items);
    updateQueue_.Bind(parameter++, figure->bytes);
  }
  updateQueue_.Run();
}

void StoreFile::ReplaceGone(std::int64_t id, const RangeSet& before, const RangeSet& after) {
  for (const RangeSet::Range& range : before.Ranges()) {
    if (!std::ranges::binary_search(after.Ranges(), range.first, {}, &RangeSet::Range::first))
      deleteGone_.Bind(1, Signed(KeyOf(id, range.first))).Run();
  }
  for (const RangeSet::Range& range : after.Ranges()) {
    const auto same = std::ranges::lower_bound(before.Ranges(), range.first, {}, &RangeSet::Range::first);
    if (same != before.Ranges().end() && *same == range) continue;
    const std::uint64_t first = KeyOf(id, range.first);
    const std::uint64_t count = range.last - range.first + 1;
    addGone_.Bind(1, Signed(first)).Bind(2, Signed(count)).Bind(3, SumOfGone(first, count)).Run();
  }
}

void StoreFile::BeginAfter(std::uint64_t position) {
  addGone_.Bind(1, 0).Bind(2, Signed(position)).Bind(3, SumOfGone(0, position)).Run();
}

std::size_t StoreFile::AddBlock(std::uint64_t firstKey, std::span<const NewItem> items) {
  const std::int64_t latestMs = EncodeBlock(firstKey, items, &block_);
  addBlock_.Bind(1, Signed(firstKey)).Bind(2, latestMs).Bind(3, block_).Run();
  return block_.size();
}

std::size_t StoreFile::ReplaceBlock(std::uint64_t firstKey, std::span<const NewItem> items) {
  const std::int64_t latestMs = EncodeBlock(firstKey, items, &block_);
  replaceBlock_.Bind(1, Signed(firstKey)).Bind(2, latestMs).Bind(3, block_).Run();
  return block_.size();
}

std::optional<StoredBlock> StoreFile::FindBlock(std::uint64_t key) {
  findBlock_.Reset();
  findBlock_.Bind(1, Signed(KeyOf(QueueOf(key), 0))).Bind(2, Signed(key));
  if (findBlock_.Step())
    return StoredBlock{static_cast<std::uint64_t>(findBlock_.Integer(0)), findBlock_.Blob(1)};
  findBlock_.Reset();
  return std::nullopt;
}

void StoreFile::MergeBlocks(std::uint64_t firstKey, std::uint64_t lastKey) {
  BlockBuilder merged;
  while (merged.Count() <= lastKey - firstKey) {
    const std::optional<BlockBuilder> block = CopyBlock(firstKey + merged.Count());
    if (!block) return;
    for (const NewItem& item : block->Items()) merged.Add(item.enqueuedMs, item.data);
  }
  if (merged.Count() != lastKey - firstKey + 1) return;
  ReplaceBlock(firstKey, merged.Items());
  deleteBlocks_.Bind(1, Signed(firstKey + 1)).Bind(2, Signed(lastKey + 1)).Run();
}

bool StoreFile::DeleteBlocks(std::int64_t queueId, RangeSet::Range range, std::uint64_t last,
                             std::size_t limit) {
  std::int64_t end = Signed(KeyOf(queueId, maxPosition));
  if (range.last < last) {
    // A block that ends with the range is followed by one that begins after it.
    const StatementScope scope(lastKey_);
    lastKey_.Bind(1, Signed(KeyOf(queueId, range.last + 1))).Step();
    end = lastKey_.Integer(0);
  }
  const std::int64_t first = Signed(KeyOf(queueId, range.first));
  bool isAll = true;
  if (limit != SIZE_MAX) {
    const StatementScope scope(nthKey_);
    nthKey_.Bind(1, first).Bind(2, static_cast<std::int64_t>(limit));
    isAll = !nthKey_.Step() || nthKey_.Integer(0) >= end;
    if (!isAll) end = nthKey_.Integer(0);
  }
  deleteBlocks_.Bind(1, first).Bind(2, end).Run();
  return isAll;
}

void StoreFile::OverwriteDeleted(bool overwrite) {
  connection_.Execute(overwrite || secureDelete_ ? "PRAGMA secure_delete=ON" : "PRAGMA secure_delete=FAST");
}

std::optional<std::int64_t> StoreFile::YoungestMs() const {
  try {
    SqliteStatement latest(connection_, "SELECT latest_ms FROM blocks ORDER BY latest_ms DESC LIMIT 1");
    if (latest.Step()) return latest.Integer(0);
  } catch (const SqliteError&) {
    // Whoever needs the items themselves gets the error.
  }
  return std::nullopt;
}

void StoreFile::LimitTimes(std::int64_t latestMs) {
  std::vector<std::uint64_t> keys;
  {
    SqliteStatement later(connection_, "SELECT key FROM blocks WHERE latest_ms>?1");
    later.Bind(1, latestMs);
    while (later.Step()) keys.push_back(static_cast<std::uint64_t>(later.Integer(0)));
  }
  if (keys.empty()) return;
  Begin();
  try {
    for (const std::uint64_t key : keys) {
      const std::optional<BlockBuilder> block = CopyBlock(key);
      if (!block) continue;
      std::vector<NewItem> items = block->Items();
      for (NewItem& item : items) item.enqueuedMs = std::min(item.enqueuedMs, latestMs);
      ReplaceBlock(key, items);
    }
    Commit();
  } catch (...) {
    Rollback();
    throw;
  }
}

std::optional<BlockBuilder> StoreFile::CopyBlock(std::uint64_t key) {
  const StatementScope scope(findBlock_);
  const auto stored = FindBlock(key);
  if (!stored || stored->key != key) return std::nullopt;
  auto block = BlockReader::Open(key, stored->data);
  if (!block) return std::nullopt;
  BlockBuilder copy;
  BlockItem item;
  while (block->Next(&item)) {
    if (!item.IsIntact()) return std::nullopt;
    copy.Add(item.enqueuedMs, item.data);
  }
  return copy;
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
