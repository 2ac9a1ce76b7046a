// PostgresConnection: one connection to a PostgreSQL server whose every step ends in bounded time.
//
// It differs from libpq alone in that a server that doesn't answer is an error after a while, and in that
// errors are exceptions with one sentence. Statements are sent in pipelines: all of one are sent without
// waiting for results in between.
//
// Threads: one at a time.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct pg_conn;
struct pg_result;

namespace veld_report::server {

class PostgresError : public std::runtime_error {
 public:
  // `state`: the SQLSTATE of five characters; empty if the server hasn't sent one. `isAway`: no server
  // accepts connections there at present.
  PostgresError(const std::string& sentence, std::string state, bool isAway)
      : runtime_error(sentence), state_(std::move(state)), isAway_(isAway) {}
  const std::string& State() const { return state_; }
  bool IsAway() const { return isAway_; }

 private:
  std::string state_;
  bool isAway_;
};

// Throws std::invalid_argument with a sentence, without password and user, if libpq couldn't use this URL.
void CheckPostgresUrl(const std::string& url);

// The elements of a text[], in the form that PostgreSQL takes without parsing.
class PostgresTextArray {
 public:
  void Add(std::string_view text);
  void AddNull();
  bool IsEmpty() const { return count_ == 0; }
  // All of it, valid until the next call. The array is empty afterwards.
  const std::string& Take();

 private:
  std::string elements_;
  std::string taken_;
  unsigned count_ = 0;
  bool hasNull_ = false;
};

class PostgresConnection {
 public:
  struct Parameter {
    const std::string& value;
    bool isBinary;
  };

  // `url`: postgresql://..., with whatever libpq takes in one. What it leaves out comes from libpq's
  // environment variables and ~/.pgpass. Throws PostgresError.
  explicit PostgresConnection(const std::string& url);
  ~PostgresConnection();
  PostgresConnection(const PostgresConnection&) = delete;
  PostgresConnection& operator=(const PostgresConnection&) = delete;

  // False once the server has closed the connection. Doesn't wait.
  bool IsAlive();
  // The encoding of the database: "UTF8".
  std::string Encoding() const;

  // Several statements without parameters, as one transaction unless they say otherwise. Returns the first
  // column of the last one's first row; empty if there is none or it is null. Throws PostgresError.
  std::string Run(const std::string& statements);
  void Prepare(const char* name, const char* statement);

  // A pipeline: statements with Send, then Finish, which returns how many rows each of them has touched.
  // A Send returns once the statement has left this process. If one throws PostgresError, the connection is
  // of no more use.
  void BeginPipeline();
  void Send(const char* prepared, const std::vector<Parameter>& parameters);
  void SendPlain(const char* statement);
  std::vector<unsigned long> Finish();

 private:
  struct Close {
    void operator()(pg_conn* connection) const;
  };
  struct Clear {
    void operator()(pg_result* result) const;
  };
  using Result = std::unique_ptr<pg_result, Clear>;

  // Waits until `done` holds, which it asks after everything that comes or goes.
  void Await(const std::function<bool()>& done);
  Result Next();
  void Check(bool ok) const;
  void CheckResult(const pg_result* result) const;
  [[noreturn]] void Fail() const;

  std::unique_ptr<pg_conn, Close> connection_;
  std::size_t sent_ = 0;  // statements of the pipeline
};

}  // namespace veld_report::server
