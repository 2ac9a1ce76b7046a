// SqliteFile: the sink that puts each record into a row of an SQLite database.
//
//   table records: id, record_time (of the record, or null), received (UTC), url, url_path, key_name, json
//
// The database's user_version is the version of this table. One of an earlier version is migrated when it is
// opened; one of a later version is refused.
//
// The ids are unique, so a repeated record is recognised as long as its row is there, also after a restart.
// Others may read the database while the server writes; to keep it small, delete rows.
#pragma once

#include <memory>
#include <string>

#include "server/record_sink.h"

struct sqlite3;
struct sqlite3_stmt;

namespace veld_report::server {

class SqliteFile final : public GroupingSink {
 public:
  // Opens or creates the database. Throws std::runtime_error with a sentence.
  explicit SqliteFile(const SinkOptions& options);
  ~SqliteFile() override;
  SqliteFile(const SqliteFile&) = delete;
  SqliteFile& operator=(const SqliteFile&) = delete;

 private:
  struct CloseDatabase {
    void operator()(sqlite3* database) const;
  };
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };
  using Database = std::unique_ptr<sqlite3, CloseDatabase>;

  // One transaction. After a failure the next call opens the database again.
  void WriteGroup(std::vector<Member>& group) override;
  void ReopenFile() override;

  void Open();
  void Run(sqlite3* database, const char* sql) const;
  void Migrate(sqlite3* database) const;
  int Version(sqlite3* database) const;
  bool Insert(const SinkPacket& packet, const SinkRecord& record, const std::string& received);
  [[noreturn]] void Fail(sqlite3* database) const;

  const std::string path_;
  Database database_;
  std::unique_ptr<sqlite3_stmt, Finalize> insert_;
};

}  // namespace veld_report::server
