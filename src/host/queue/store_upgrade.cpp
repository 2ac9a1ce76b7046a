#include "host/queue/store_upgrade.h"

#include <sqlite3.h>

#include <memory>

#include "host/base/sqlite_words.h"
#include "host/platform/file.h"
#include "host/queue/sqlite_connection.h"
#include "host/queue/store_file.h"
#include "host/queue/store_folder.h"
#include "host/queue/store_layout.h"
#include "host/queue/store_salvage.h"

namespace veld_report::host {
namespace {

std::filesystem::path CopyOf(const std::filesystem::path& file, std::int64_t version) {
  return WithEnding(file, (".layout-" + std::to_string(version)).c_str());
}
std::filesystem::path WorkOf(const std::filesystem::path& file) { return WithEnding(file, ".upgrade"); }

void Remove(const std::filesystem::path& file) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    RemoveFile(WithEnding(file, suffix));
  }
}

// Copied through SQLite, so that the copy includes the log's content and the locks on the file remain.
void KeepCopy(SqliteConnection& connection, const std::filesystem::path& copy) {
  Remove(copy);  // left by an interrupted upgrade
  PreparePrivateFile(copy);
  std::string quoted;
  for (const char character : Utf8(SystemPath(copy))) quoted.append(character == '\'' ? 2 : 1, character);
  connection.Execute("VACUUM INTO '" + quoted + "'");
}

// Makes `target` byte for byte what `source` is, in one transaction.
void Overwrite(SqliteConnection& target, const SqliteConnection& source, const std::filesystem::path& file) {
  sqlite3_backup* const backup = sqlite3_backup_init(target.Handle(), "main", source.Handle(), "main");
  const int stepped = backup ? sqlite3_backup_step(backup, -1) : sqlite3_errcode(target.Handle());
  const int finished = sqlite3_backup_finish(backup);
  if (stepped != SQLITE_DONE)
    throw SqliteError(stepped, Utf8(file) + ": " + SqliteWords(stepped, sqlite3_errstr(stepped)));
  if (finished != SQLITE_OK)
    throw SqliteError(finished, Utf8(file) + ": " + SqliteWords(finished, sqlite3_errstr(finished)));
}

void Upgrade(SqliteConnection& connection, const std::filesystem::path& file,
             const std::filesystem::path& copy, const std::string& vfs) {
  KeepCopy(connection, copy);
  const auto work = WorkOf(file);
  Remove(work);
  PreparePrivateFile(work);
  {
    StoreFile made(work, {.vfs = vfs});
    // If this is interrupted, the file is made again.
    made.Connection().Execute("PRAGMA journal_mode=OFF;PRAGMA synchronous=OFF");
    SqliteConnection source(copy, SqliteConnection::Access::readWrite, vfs);
    CopyInto(made, source);
    Overwrite(connection, made.Connection(), file);
  }
  connection.Execute("PRAGMA wal_checkpoint(TRUNCATE)");
  Remove(work);
}

}  // namespace

void UpgradeStore(const std::filesystem::path& file, const std::string& vfs) {
  SqliteConnection connection(file, SqliteConnection::Access::readWrite, vfs);
  const std::int64_t version = LayoutVersion(connection);
  const auto copy = CopyOf(file, version);
  try {
    Upgrade(connection, file, copy, vfs);
  } catch (const SqliteError& error) {
    Remove(WorkOf(file));
    Remove(copy);
    if (!error.IsNoRoom()) throw;
    throw StoreError("can't upgrade the store " + Utf8(file) + ": " + error.what() +
                     "; make room for three times the file on its disk");
  }
}

void RemoveTracesOfUpgrades(const std::filesystem::path& file) noexcept {
  try {
    for (std::int64_t version = 1; version < storeLayoutVersion; ++version) Remove(CopyOf(file, version));
    Remove(WorkOf(file));
  } catch (const std::exception&) {
    // No memory for a name; the next close removes them.
  }
}

}  // namespace veld_report::host
