// SqliteFile: the sink that puts each record into a row of an SQLite database.
//
//   table records: id, record_time (of the record, or null), received (UTC), url_path, key_name, json
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
  // Opens or creates the database. Throws std::runtime_error with a sentence, also for rotation, which it
  // doesn't have.
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
  bool Insert(const SinkPacket& packet, const SinkRecord& record, const std::string& received);
  [[noreturn]] void Fail(sqlite3* database) const;

  const std::string path_;
  const std::shared_ptr<const host::Clock> clock_;
  Database database_;
  std::unique_ptr<sqlite3_stmt, Finalize> insert_;
};

}  // namespace veld_report::server
