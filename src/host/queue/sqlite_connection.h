// A thin layer over SQLite's C interface: errors become exceptions and statements are reset by scope.
//
// It hides nothing of SQL and isn't a general wrapper. A connection is opened without SQLite's own mutexes,
// so connection and statements belong to one thread at a time; their owner locks.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace veld_report::host {

// What SQLite refused to do. The text names the file and what was tried.
class SqliteError : public std::runtime_error {
 public:
  SqliteError(int code, const std::string& what) : std::runtime_error(what), code_(code) {}
  // SQLite's extended result code.
  int Code() const { return code_; }
  // The content of the file can't be read as what it should be.
  bool IsDamage() const;
  // The same, and not because a device failed to read: trying again won't help.
  bool IsCertainDamage() const;
  // No room, or the device refused a write: a later try may go well.
  bool IsNoRoom() const;

 private:
  int code_;
};

class SqliteConnection;

// A prepared statement. Bindings stay until they are replaced.
class SqliteStatement {
 public:
  SqliteStatement(const SqliteConnection& connection, std::string_view sql);

  SqliteStatement& Bind(int index, std::int64_t value);
  SqliteStatement& BindNull(int index);
  // The bytes must stay as they are until the statement is reset.
  SqliteStatement& Bind(int index, std::string_view text);
  SqliteStatement& Bind(int index, std::span<const std::uint8_t> blob);

  // Moves to the next row; false when there is none. Throws SqliteError, with the statement reset.
  bool Step();
  // Runs a statement that gives no rows, and resets it.
  void Run();
  void Reset() noexcept;

  // Of the current row, columns from 0. Views are valid until the next Step or Reset.
  int Columns() const;
  std::int64_t Integer(int column) const;
  std::string_view Text(int column) const;
  std::span<const std::uint8_t> Blob(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const;
  };
  void Check(int code) const;

  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

// Resets a statement at the end of a scope, so that no read transaction stays open behind it.
class StatementScope {
 public:
  explicit StatementScope(SqliteStatement& statement) : statement_(statement) {}
  StatementScope(const StatementScope&) = delete;
  StatementScope& operator=(const StatementScope&) = delete;
  ~StatementScope() { statement_.Reset(); }

 private:
  SqliteStatement& statement_;
};

class SqliteConnection {
 public:
  enum class Access { read, readWrite };

  // Opens an existing file; it is never created here. `vfs`: name of a registered SQLite VFS, empty for the
  // default. Throws SqliteError.
  SqliteConnection(const std::filesystem::path& file, Access access, const std::string& vfs = {});

  void Execute(const std::string& sql);
  // Whether closing leaves the write-ahead log where it is, as for a file that must not be changed.
  void KeepLogOnClose(bool keep);
  // From here on LogPages tells how many pages the write-ahead log held at the last commit. SQLite then
  // writes the log back no more by itself.
  void CountLogPages();
  int LogPages() const { return *logPages_; }
  // The first column of the first row; throws if there is no row.
  std::int64_t QueryInteger(std::string_view sql) const;
  std::string QueryText(std::string_view sql) const;
  // Rows that the last INSERT, UPDATE or DELETE changed.
  std::int64_t Changes() const;
  // False while a transaction is open.
  bool IsAutocommit() const;
  sqlite3* Handle() const { return handle_.get(); }

 private:
  struct Close {
    void operator()(sqlite3* handle) const;
  };
  std::unique_ptr<int> logPages_ = std::make_unique<int>(0);  // SQLite knows the address
  std::unique_ptr<sqlite3, Close> handle_;
};

}  // namespace veld_report::host
