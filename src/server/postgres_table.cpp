#include "server/postgres_table.h"

#include <charconv>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "server/open_sink.h"

namespace veld_report::server {
namespace {

// What leads from each version of the table to the next; the first makes it.
constexpr const char* steps[] = {R"(
  CREATE TABLE records (
    id text, record_time text, received timestamptz NOT NULL, url text NOT NULL, url_path text NOT NULL,
    key_name text NOT NULL, json text NOT NULL);
  CREATE UNIQUE INDEX records_by_id ON records (id);
  CREATE TABLE records_version (version integer NOT NULL);
  INSERT INTO records_version VALUES (1);
)"};
constexpr int newestVersion = std::size(steps);
// Any number that nothing else in the database is likely to lock.
const std::string lockForMigration = "7234021930281";

// In the order of ids, so that two servers that store the same records wait for each other and don't
// deadlock.
constexpr const char* insertText =
    "INSERT INTO records (id, record_time, received, url, url_path, key_name, json) "
    "SELECT id, record_time, $1::timestamptz, $2::text, $3::text, $4::text, json "
    "FROM unnest($5::text[], $6::text[], $7::text[]) WITH ORDINALITY AS r (id, record_time, json, place) "
    "ORDER BY id, place ON CONFLICT (id) DO NOTHING";
// A statement has at most this much, unless a single record is larger.
constexpr std::size_t statementBytes = 1 << 20;

constexpr std::string_view deadlockState = "40P01";
constexpr std::chrono::seconds pause{1};

// Sends the records of one packet in as many statements as it takes.
class PacketSender {
 public:
  PacketSender(PostgresConnection& connection, const SinkPacket& packet)
      : connection_(connection),
        received_(TextOfTime(packet.received)),
        url_(packet.url),
        urlPath_(packet.urlPath),
        keyName_(packet.keyName) {
    ReadRecords(packet.lines, [this](const SinkRecord& record) { Add(record); });
    if (!json_.IsEmpty()) Send();
  }
  std::size_t Records() const { return records_; }
  std::size_t Statements() const { return statements_; }

 private:
  void Add(const SinkRecord& record) {
    const auto add = [](PostgresTextArray& array, const std::string& text) {
      text.empty() ? array.AddNull() : array.Add(text);
    };
    add(ids_, record.id);
    add(times_, record.time);
    json_.Add(record.text);
    ++records_;
    // A record costs more than its text, however short that is.
    bytes_ += record.text.size() + 100;
    if (bytes_ >= statementBytes) Send();
  }
  void Send() {
    connection_.Send("insert", {{received_, false},
                                {url_, false},
                                {urlPath_, false},
                                {keyName_, false},
                                {ids_.Take(), true},
                                {times_.Take(), true},
                                {json_.Take(), true}});
    bytes_ = 0;
    ++statements_;
  }

  PostgresConnection& connection_;
  const std::string received_, url_, urlPath_, keyName_;
  PostgresTextArray ids_, times_, json_;
  std::size_t records_ = 0, statements_ = 0, bytes_ = 0;
};

}  // namespace

PostgresTable::PostgresTable(const SinkOptions& options)
    : url_(options.out),
      name_(DisplayName(options.out)),
      clock_(options.clock ? options.clock : std::make_shared<host::SystemClock>()) {
  try {
    Connect();
  } catch (const PostgresError& error) {
    if (!error.IsAway()) Fail(error.what());
    if (options.log) options.log(name_ + ": " + error.what() + "; it is asked again with each message");
  }
}

PostgresTable::~PostgresTable() = default;

void PostgresTable::Fail(const std::string& what) const { throw std::runtime_error(name_ + ": " + what); }

void PostgresTable::Connect() {
  try {
    connection_ = std::make_unique<PostgresConnection>(url_);
    away_.clear();
    // A text in another encoding can't hold every record.
    const std::string encoding = connection_->Encoding();
    if (encoding != "UTF8")
      throw PostgresError("the database's encoding is " + encoding + "; records need UTF8", "", false);
    // Otherwise a commit isn't on the disk. Any other setting was chosen by somebody who knows.
    connection_->Run(
        "SELECT set_config('synchronous_commit', 'on', false) "
        "WHERE current_setting('synchronous_commit') = 'off'");
    Migrate();
    connection_->Prepare("insert", insertText);
  } catch (const PostgresError& error) {
    connection_.reset();
    away_ = error.what();
    askAgain_ = clock_->Now() + pause;
    throw;
  }
}

// Each step is a transaction, and the lock a lock of the connection: within one transaction, a table that
// another server has just made would stay invisible.
void PostgresTable::Migrate() {
  if (Version() == newestVersion) return;
  connection_->Run("SELECT pg_advisory_lock(" + lockForMigration + ")");
  const int version = Version();
  if (version < 0 || version > newestVersion) {
    throw PostgresError("its table has version " + std::to_string(version) +
                            ", but this program knows only those up to " + std::to_string(newestVersion),
                        "", false);
  }
  for (int i = version; i < newestVersion; ++i) connection_->Run(steps[i]);
  connection_->Run("SELECT pg_advisory_unlock(" + lockForMigration + ")");
}

int PostgresTable::Version() {
  if (connection_->Run("SELECT to_regclass('records_version')").empty()) return 0;
  const std::string text = connection_->Run("SELECT version FROM records_version");
  int version = -1;  // none that this program knows
  std::from_chars(text.data(), text.data() + text.size(), version);
  return version;
}

void PostgresTable::ReopenFile() { connection_.reset(); }

void PostgresTable::WriteGroup(std::vector<Member>& group) {
  if (connection_ && !connection_->IsAlive()) connection_.reset();
  if (!connection_ && !away_.empty() && clock_->Now() < askAgain_) Fail(away_);
  for (int attempt = 1;; ++attempt) {
    try {
      if (!connection_) Connect();
      Write(group);
      return;
    } catch (const PostgresError& error) {
      connection_.reset();
      // The server has rolled it back, in favour of another one.
      if (error.State() == deadlockState && attempt < 3) continue;
      Fail(error.what());
    } catch (...) {
      connection_.reset();
      throw;
    }
  }
}

void PostgresTable::Write(std::vector<Member>& group) {
  std::vector<std::size_t> statements, records;
  connection_->BeginPipeline();
  connection_->SendPlain("BEGIN");
  for (const Member& member : group) {
    const PacketSender sender(*connection_, *member.packet);
    statements.push_back(sender.Statements());
    records.push_back(sender.Records());
  }
  connection_->SendPlain("COMMIT");
  const std::vector<unsigned long> touched = connection_->Finish();
  auto next = touched.begin() + 1;
  for (std::size_t i = 0; i < group.size(); ++i) {
    StoreResult& result = group[i].result;
    result = {};
    for (std::size_t left = statements[i]; left > 0; --left) result.stored += *next++;
    result.repeated = records[i] - result.stored;
  }
}

}  // namespace veld_report::server
