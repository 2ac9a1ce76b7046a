#include "server/sqlite_file.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <ctime>
#include <stdexcept>
#include <utility>

namespace veld_report::server {
namespace {

// With synchronous = FULL a commit in the WAL mode is on the disk.
constexpr const char* setUp = R"(
  PRAGMA journal_mode = WAL;
  PRAGMA synchronous = FULL;
  CREATE TABLE IF NOT EXISTS records (
    id TEXT, record_time TEXT, received TEXT NOT NULL, url_path TEXT NOT NULL, key_name TEXT NOT NULL,
    json TEXT NOT NULL);
  CREATE UNIQUE INDEX IF NOT EXISTS records_by_id ON records (id);
)";
constexpr const char* insertText =
    "INSERT INTO records (id, record_time, received, url_path, key_name, json) VALUES (?, ?, ?, ?, ?, ?) "
    "ON CONFLICT (id) DO NOTHING";
constexpr int busyMs = 2000;

std::string TextOf(host::Clock::WallTimePoint moment) {
  const std::time_t seconds = host::Clock::WallTimePoint::clock::to_time_t(moment);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

}  // namespace

void SqliteFile::CloseDatabase::operator()(sqlite3* database) const { sqlite3_close(database); }
void SqliteFile::Finalize::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

SqliteFile::SqliteFile(const SinkOptions& options)
    : path_(options.path), clock_(options.clock ? options.clock : std::make_shared<host::SystemClock>()) {
  if (options.rotateBytes != 0 || options.rotateEvery.count() != 0)
    throw std::runtime_error(path_ + ": a database isn't rotated; delete rows instead");
  Open();
}

SqliteFile::~SqliteFile() = default;

void SqliteFile::Fail(sqlite3* database) const {
  throw std::runtime_error(path_ + ": " + (database ? sqlite3_errmsg(database) : "out of memory"));
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
  sqlite3_stmt* insert = nullptr;
  if (sqlite3_prepare_v2(handle, insertText, -1, &insert, nullptr) != SQLITE_OK) Fail(handle);
  insert_.reset(insert);
  database_ = std::move(database);
}

void SqliteFile::ReopenFile() {
  insert_.reset();
  database_.reset();
  Open();
}

void SqliteFile::WriteGroup(std::vector<Member>& group) {
  try {
    if (!database_) Open();
    const std::string received = TextOf(clock_->WallNow());
    Run(database_.get(), "BEGIN IMMEDIATE");
    for (Member& member : group) {
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
    const int code = sqlite3_bind_text64(insert, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    if (code != SQLITE_OK) Fail(database_.get());
  };
  sqlite3_clear_bindings(insert);
  if (!record.id.empty()) bind(1, record.id);
  if (!record.time.empty()) bind(2, record.time);
  bind(3, received);
  bind(4, packet.urlPath);
  // Empty views may have no address, which would bind a null.
  bind(5, packet.keyName.empty() ? std::string_view("") : packet.keyName);
  bind(6, record.text);
  if (sqlite3_step(insert) != SQLITE_DONE) Fail(database_.get());
  sqlite3_reset(insert);
  return sqlite3_changes(database_.get()) != 0;
}

}  // namespace veld_report::server
