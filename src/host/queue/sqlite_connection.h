// A thin layer over SQLite's C interface: errors become exceptions, and statements are reset by scope.
//
// It doesn't hide SQL and isn't a general wrapper. A connection is opened without SQLite's own mutexes, so a
// connection and its statements are for one thread at a time; their owner locks.
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

// A failed SQLite operation. The text names the file and the attempt.
class SqliteError : public std::runtime_error {
 public:
  SqliteError(int code, const std::string& what) : std::runtime_error(what), code_(code) {}
  // SQLite's extended result code.
  int Code() const { return code_; }
  // The file's content is invalid.
  bool IsDamage() const;
  // The same, and not because a device failed to read: trying again won't help.
  bool IsCertainDamage() const;
  // There is no room, or the device refused a write: a later attempt may succeed.
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
  // The bytes must not change until the statement is reset.
  SqliteStatement& Bind(int index, std::string_view text);
  SqliteStatement& Bind(int index, std::span<const std::uint8_t> blob);

  // Moves to the next row; false if there is none. Throws SqliteError and then resets the statement.
  bool Step();
  // Runs a statement that returns no rows, and resets it.
  void Run();
  void Reset() noexcept;

  // Columns of the current row, from 0. Views are valid until the next Step or Reset.
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

// Resets a statement at the end of a scope, so that it leaves no read transaction open.
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

  // Opens an existing file and never creates one. `vfs`: the name of a registered SQLite VFS, empty for the
  // default. Throws SqliteError, as damage also if the file is empty and its log isn't.
  SqliteConnection(const std::filesystem::path& file, Access access, const std::string& vfs = {});

  void Execute(const std::string& sql);
  // If set, closing keeps the write-ahead log, as for a file that must not change.
  void KeepLogOnClose(bool keep);
  // From now on LogPages returns the size of the write-ahead log in pages at the last commit. SQLite then no
  // longer checkpoints automatically.
  void CountLogPages();
  int LogPages() const { return *logPages_; }
  // The first column of the first row; throws if there is no row.
  std::int64_t QueryInteger(std::string_view sql) const;
  std::string QueryText(std::string_view sql) const;
  // The number of rows that the last INSERT, UPDATE or DELETE changed.
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
