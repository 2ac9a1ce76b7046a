#include "server/sqlite_file.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <iterator>
#include <stdexcept>
#include <utility>

#include "host/base/sqlite_words.h"

namespace veld_report::server {
namespace {

// With synchronous = FULL a commit in the WAL mode is on the disk.
constexpr const char* setUp = R"(
  PRAGMA journal_mode = WAL;
  PRAGMA synchronous = FULL;
)";
// What leads from each version of the table to the next. The first is that of a database without a version.
constexpr const char* steps[] = {
    R"(
  CREATE TABLE IF NOT EXISTS records (
    id TEXT, record_time TEXT, received TEXT NOT NULL, url_path TEXT NOT NULL, key_name TEXT NOT NULL,
    json TEXT NOT NULL);
  CREATE UNIQUE INDEX IF NOT EXISTS records_by_id ON records (id);
  PRAGMA user_version = 1;
)",
    R"(
  ALTER TABLE records ADD COLUMN url TEXT NOT NULL DEFAULT '';
  PRAGMA user_version = 2;
)"};
constexpr int newestVersion = std::size(steps);
constexpr const char* insertText =
    "INSERT INTO records (id, record_time, received, url, url_path, key_name, json) "
    "VALUES (?, ?, ?, ?, ?, ?, ?) ON CONFLICT (id) DO NOTHING";
constexpr int busyMs = 2000;

}  // namespace

void SqliteFile::CloseDatabase::operator()(sqlite3* database) const { sqlite3_close(database); }
void SqliteFile::Finalize::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

SqliteFile::SqliteFile(const SinkOptions& options) : path_(options.out) { Open(); }

SqliteFile::~SqliteFile() = default;

void SqliteFile::Fail(sqlite3* database) const {
  const int code = database ? sqlite3_extended_errcode(database) : SQLITE_NOMEM;
  throw std::runtime_error(
      path_ + ": " + host::SqliteWords(code, database ? sqlite3_errmsg(database) : sqlite3_errstr(code)));
}

void SqliteFile::Run(sqlite3* database, const char* sql) const {
  if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) Fail(database);
}

void SqliteFile::Open() {
  sqlite3* handle = nullptr;
  const mode_t oldMask = umask(0027);
  const int code = sqlite3_open_v2(path_.c_str(), &handle,
                                   SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  umask(oldMask);
  Database database(handle);
  if (code != SQLITE_OK) Fail(handle);
  sqlite3_extended_result_codes(handle, 1);
  sqlite3_busy_timeout(handle, busyMs);
  Run(handle, setUp);
  Migrate(handle);
  sqlite3_stmt* insert = nullptr;
  if (sqlite3_prepare_v2(handle, insertText, -1, &insert, nullptr) != SQLITE_OK) Fail(handle);
  insert_.reset(insert);
  database_ = std::move(database);
}

// Several servers may do this at once: only the first finds anything to do.
void SqliteFile::Migrate(sqlite3* database) const {
  if (Version(database) == newestVersion) return;
  Run(database, "BEGIN IMMEDIATE");
  const int version = Version(database);
  if (version < 0 || version > newestVersion) {
    throw std::runtime_error(path_ + ": its table has version " + std::to_string(version) +
                             ", but this program knows only those up to " + std::to_string(newestVersion));
  }
  for (int i = version; i < newestVersion; ++i) Run(database, steps[i]);
  Run(database, "COMMIT");
}

int SqliteFile::Version(sqlite3* database) const {
  sqlite3_stmt* raw = nullptr;
  const int code = sqlite3_prepare_v2(database, "PRAGMA user_version", -1, &raw, nullptr);
  const std::unique_ptr<sqlite3_stmt, Finalize> statement(raw);
  if (code != SQLITE_OK || sqlite3_step(raw) != SQLITE_ROW) Fail(database);
  return sqlite3_column_int(raw, 0);
}

void SqliteFile::ReopenFile() {
  insert_.reset();
  database_.reset();
  Open();
}

void SqliteFile::WriteGroup(std::vector<Member>& group) {
  try {
    if (!database_) Open();
    Run(database_.get(), "BEGIN IMMEDIATE");
    for (Member& member : group) {
      const std::string received = TextOfTime(member.packet->received);
      ReadRecords(member.packet->lines, [&](const SinkRecord& record) {
        ++(Insert(*member.packet, record, received) ? member.result.stored : member.result.repeated);
      });
    }
    Run(database_.get(), "COMMIT");
  } catch (...) {
    // Closing rolls the transaction back.
    insert_.reset();
    database_.reset();
    throw;
  }
}

bool SqliteFile::Insert(const SinkPacket& packet, const SinkRecord& record, const std::string& received) {
  sqlite3_stmt* const insert = insert_.get();
  const auto bind = [&](int index, std::string_view text) {
    // An empty view may have no address, which would bind a null.
    const char* const data = text.empty() ? "" : text.data();
    const int code = sqlite3_bind_text64(insert, index, data, text.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (code != SQLITE_OK) Fail(database_.get());
  };
  sqlite3_clear_bindings(insert);
  if (!record.id.empty()) bind(1, record.id);
  if (!record.time.empty()) bind(2, record.time);
  bind(3, received);
  bind(4, packet.url);
  bind(5, packet.urlPath);
  bind(6, packet.keyName);
  bind(7, record.text);
  if (sqlite3_step(insert) != SQLITE_DONE) Fail(database_.get());
  sqlite3_reset(insert);
  return sqlite3_changes(database_.get()) != 0;
}

}  // namespace veld_report::server
