#include "host/queue/sqlite_connection.h"

#include <sqlite3.h>

#include "host/base/sqlite_words.h"
#include "host/platform/file.h"

namespace veld_report::host {
namespace {

// SQLite for Windows takes paths of 1,040 bytes at most, unless it is asked for by its other name.
const char* VfsForLongPaths() {
  const sqlite3_vfs* const standard = sqlite3_vfs_find(nullptr);
  return standard && std::string_view(standard->zName) == "win32" ? "win32-longpath" : nullptr;
}

// How long a statement waits for another process that has locked the file.
constexpr int busyTimeoutMs = 5000;

[[noreturn]] void Fail(sqlite3* handle, int code) {
  const char* file = handle ? sqlite3_db_filename(handle, "main") : nullptr;
  const char* reason = handle ? sqlite3_errmsg(handle) : sqlite3_errstr(code);
  throw SqliteError(code, (file ? WithoutPrefix(file) : "store") + ": " + SqliteWords(code, reason));
}

int ErrorOf(sqlite3* handle, int code) {
  const int extended = sqlite3_extended_errcode(handle);
  return (extended & 0xff) == (code & 0xff) ? extended : code;
}

// SQLite takes a file of one byte as empty, too, and deletes the log of an empty file.
bool HasOnlyItsLog(const std::filesystem::path& file) {
  const auto status = FileStatus::Of(file);
  if (!status || status->bytes > 1) return false;
  const auto log = FileStatus::Of(WithEnding(file, "-wal"));
  return log && log->bytes != 0;
}

}  // namespace

bool SqliteError::IsDamage() const {
  switch (code_ & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_FORMAT:
      return true;
    case SQLITE_IOERR:
      return code_ == SQLITE_IOERR_READ || code_ == SQLITE_IOERR_SHORT_READ || code_ == SQLITE_IOERR_DATA ||
             code_ == SQLITE_IOERR_CORRUPTFS;
    default:
      return false;
  }
}

bool SqliteError::IsCertainDamage() const { return IsDamage() && (code_ & 0xff) != SQLITE_IOERR; }

bool SqliteError::IsNoRoom() const {
  return (code_ & 0xff) == SQLITE_FULL || ((code_ & 0xff) == SQLITE_IOERR && !IsDamage());
}

void SqliteStatement::Finalize::operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }

SqliteStatement::SqliteStatement(const SqliteConnection& connection, std::string_view sql) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(connection.Handle(), sql.data(), static_cast<int>(sql.size()),
                                      SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
  // The statements fit every store, so one that doesn't compile tells of a damaged schema.
  if (code == SQLITE_ERROR) Fail(connection.Handle(), SQLITE_CORRUPT);
  if (code != SQLITE_OK) Fail(connection.Handle(), ErrorOf(connection.Handle(), code));
  statement_.reset(statement);
}

void SqliteStatement::Check(int code) const {
  sqlite3* const handle = sqlite3_db_handle(statement_.get());
  if (code != SQLITE_OK) Fail(handle, ErrorOf(handle, code));
}

SqliteStatement& SqliteStatement::Bind(int index, std::int64_t value) {
  Check(sqlite3_bind_int64(statement_.get(), index, value));
  return *this;
}

SqliteStatement& SqliteStatement::BindNull(int index) {
  Check(sqlite3_bind_null(statement_.get(), index));
  return *this;
}

SqliteStatement& SqliteStatement::Bind(int index, std::string_view text) {
  Check(sqlite3_bind_text64(statement_.get(), index, text.data(), text.size(), nullptr, SQLITE_UTF8));
  return *this;
}

SqliteStatement& SqliteStatement::Bind(int index, std::span<const std::uint8_t> blob) {
  // A null pointer would bind NULL instead of an empty blob.
  const void* bytes = blob.empty() ? "" : static_cast<const void*>(blob.data());
  Check(sqlite3_bind_blob64(statement_.get(), index, bytes, blob.size(), nullptr));
  return *this;
}

bool SqliteStatement::Step() {
  const int code = sqlite3_step(statement_.get());
  if (code == SQLITE_ROW) return true;
  if (code == SQLITE_DONE) return false;
  sqlite3* const handle = sqlite3_db_handle(statement_.get());
  const int extended = ErrorOf(handle, code);
  try {
    Fail(handle, extended);
  } catch (...) {
    // After the exception has read the message: a reset replaces it.
    Reset();
    throw;
  }
}

void SqliteStatement::Run() {
  const StatementScope scope(*this);
  while (Step()) {
  }
}

void SqliteStatement::Reset() noexcept { sqlite3_reset(statement_.get()); }

int SqliteStatement::Columns() const { return sqlite3_column_count(statement_.get()); }

std::int64_t SqliteStatement::Integer(int column) const {
  return sqlite3_column_int64(statement_.get(), column);
}

std::string_view SqliteStatement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
  return {text ? text : "", static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

std::span<const std::uint8_t> SqliteStatement::Blob(int column) const {
  const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_.get(), column));
  return {bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column))};
}

void SqliteConnection::Close::operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }

SqliteConnection::SqliteConnection(const std::filesystem::path& file, Access access, const std::string& vfs) {
  if (HasOnlyItsLog(file)) {
    throw SqliteError(SQLITE_CORRUPT, Utf8(file) + ": the file is empty, but its log isn't");
  }
  const int flags = SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE |
                    (access == Access::read ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE);
  sqlite3* handle = nullptr;
  const int code = sqlite3_open_v2(Utf8(SystemPath(file)).c_str(), &handle, flags,
                                   vfs.empty() ? VfsForLongPaths() : vfs.c_str());
  handle_.reset(handle);
  if (code != SQLITE_OK) Fail(handle, code);
  sqlite3_busy_timeout(handle, busyTimeoutMs);
}

void SqliteConnection::Execute(const std::string& sql) {
  const int code = sqlite3_exec(handle_.get(), sql.c_str(), nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) Fail(handle_.get(), ErrorOf(handle_.get(), code));
}

void SqliteConnection::KeepLogOnClose(bool keep) {
  sqlite3_db_config(handle_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, keep ? 1 : 0, nullptr);
}

void SqliteConnection::CountLogPages() {
  const auto note = [](void* pages, sqlite3*, const char*, int count) {
    *static_cast<int*>(pages) = count;
    return SQLITE_OK;
  };
  sqlite3_wal_hook(handle_.get(), note, logPages_.get());
}

std::int64_t SqliteConnection::QueryInteger(std::string_view sql) const {
  SqliteStatement statement(*this, sql);
  if (!statement.Step()) throw SqliteError(SQLITE_NOTFOUND, "no answer to " + std::string(sql));
  return statement.Integer(0);
}

std::string SqliteConnection::QueryText(std::string_view sql) const {
  SqliteStatement statement(*this, sql);
  if (!statement.Step()) throw SqliteError(SQLITE_NOTFOUND, "no answer to " + std::string(sql));
  return std::string(statement.Text(0));
}

std::int64_t SqliteConnection::Changes() const { return sqlite3_changes64(handle_.get()); }

bool SqliteConnection::IsAutocommit() const { return sqlite3_get_autocommit(handle_.get()) != 0; }

}  // namespace veld_report::host
