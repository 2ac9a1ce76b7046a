// PostgresTable: the sink that puts each record into a row of a PostgreSQL database.
//
//   table records: id, record_time (of the record, or null), received, url, url_path, key_name, json
//   table records_version: one row, the version of this table
//
// The ids are unique, so a repeated record is recognised as long as its row is there, whichever server stored
// it. JSON is a text, not json: what was accepted can be stored then, also what jsonb refuses, as \u0000.
//
// The tables are made when it first connects, and migrated if they are of an earlier version; several servers
// may start at once. If the connection is lost while a packet is being committed, nobody knows whether it
// was; the packet counts as not stored and is recognised by its ids when it comes again.
#pragma once

#include <memory>
#include <string>

#include "server/postgres_connection.h"
#include "server/record_sink.h"

namespace veld_report::server {

class PostgresTable final : public GroupingSink {
 public:
  // `options.out` is a URL, see PostgresConnection. If no server accepts connections there, the log hears of
  // it, and each Store tries again. Throws std::runtime_error with a sentence if the server refuses this one,
  // or the tables can't be used.
  explicit PostgresTable(const SinkOptions& options);
  ~PostgresTable() override;

 private:
  // One transaction. After a failure the next call connects again.
  void WriteGroup(std::vector<Member>& group) override;
  void ReopenFile() override;

  void Connect();
  void Migrate();
  int Version();
  void Write(std::vector<Member>& group);
  [[noreturn]] void Fail(const std::string& what) const;

  const std::string url_;
  const std::string name_;  // the url as logs show it
  const std::shared_ptr<const host::Clock> clock_;
  std::unique_ptr<PostgresConnection> connection_;
  // An address that doesn't answer is asked once in a while, not by every request.
  std::string away_;  // why it is; empty: it isn't known to be
  host::Clock::TimePoint askAgain_{};
};

}  // namespace veld_report::server
