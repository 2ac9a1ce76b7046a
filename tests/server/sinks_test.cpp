// The sinks of records: what each stores, what it takes for repeated, and what becomes of a packet that one
// of them can't store.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "server/open_sink.h"
#include "server/remembered_ids.h"
#include "server/sink_set.h"
#include "tests/common/files.h"
#include "tests/common/postgres.h"
#include "tests/common/small_disk.h"
#include "tests/common/temporary_folder.h"
#include "tests/host/manual_clock.h"

namespace veld_report::server {
namespace {

using testing::HasSubstr;

SinkPacket PacketOf(std::string_view lines) { return {"host/v1", "/v1", "key", {}, lines}; }

// Runs statements on a database beside the sink. Returns the first column of the rows, comma-separated.
std::string Sql(const std::string& path, const char* statements) {
  sqlite3* database = nullptr;
  std::string values;
  const auto add = [](void* all, int, char** columns, char**) {
    static_cast<std::string*>(all)->append(columns[0] ? columns[0] : "null").push_back(',');
    return 0;
  };
  EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, statements, add, &values, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
  sqlite3_close(database);
  return values;
}

TEST(Sinks, AnEarlierTableIsMigratedAndALaterOneRefused) {
  const tests::TemporaryFolder folder;
  const SinkOptions options{folder / "out.sqlite"};
  Sql(options.out,
      "CREATE TABLE records (id TEXT, record_time TEXT, received TEXT NOT NULL, url_path TEXT NOT NULL, "
      "key_name TEXT NOT NULL, json TEXT NOT NULL); CREATE UNIQUE INDEX records_by_id ON records (id);"
      "INSERT INTO records VALUES ('1', null, '', '', '', 'old')");
  const auto result = OpenSink(options)->Store(PacketOf("{\"recordId\":\"1\"}\n{\"recordId\":\"2\"}\n"));
  EXPECT_EQ(result.stored, 1U);
  EXPECT_EQ(Sql(options.out, "SELECT url || key_name || received || json FROM records ORDER BY id"),
            "old,host/v1key1970-01-01T00:00:00.000Z{\"recordId\":\"2\"},");
  Sql(options.out, "PRAGMA user_version = 99");
  EXPECT_THROW(OpenSink(options), std::runtime_error);
  EXPECT_EQ(Sql(options.out, "PRAGMA user_version"), "99,");
}

// While one of two sinks is away, a packet is stored at most once more in the other, with or without ids.
TEST(Sinks, APacketIsStoredOnceAllSinksHaveIt) {
  const tests::TemporaryFolder folder;
  const std::string lines = folder / "out", database = folder / "out.sqlite",
                    text = "{\"recordId\":\"1\"}\n2\n";
  std::vector<std::string> log;
  SinkSet sinks(
      {{lines}, {database}}, [&](const std::string& line) { log.push_back(line); }, "nothing is");
  Sql(database, "CREATE TRIGGER t BEFORE INSERT ON records BEGIN SELECT RAISE(ABORT, 'is away'); END");
  for (int i = 0; i < 3; ++i) {
    EXPECT_THROW(sinks.Store(PacketOf(text)), std::runtime_error);
    EXPECT_TRUE(sinks.IsFailing());
    EXPECT_EQ(tests::ReadFile(lines), text);
  }
  Sql(database, "DROP TRIGGER t");
  EXPECT_EQ(sinks.Store(PacketOf(text)).stored, 2U);
  EXPECT_FALSE(sinks.IsFailing());
  EXPECT_EQ(tests::ReadFile(lines), text + "2\n");
  EXPECT_EQ(Sql(database, "SELECT json FROM records"), "{\"recordId\":\"1\"},2,");
  EXPECT_THAT(log, testing::ElementsAre(
                       database + ": is away (SQLite 1811); nothing is until records can be stored again",
                       database + ": records are stored again"));
}

// A client per thread stores while the file is rotated by size and time, and moved away.
TEST(Sinks, RotationTearsAndLosesNoLine) {
  const tests::TemporaryFolder folder;
  const auto clock = std::make_shared<tests::ManualClock>();
  const std::string path = folder / "out";
  std::vector<std::string> expected, found;
  {
    const auto sink = OpenSink({path, 2000, std::chrono::seconds(60), clock});
    std::vector<std::thread> threads;
    for (int client = 0; client < 4; ++client) {
      for (int i = 0; i < 100; ++i) expected.push_back(std::to_string(1000 * client + i));
      threads.emplace_back([&sink, client] {
        for (int i = 0; i < 100; ++i) sink->Store(PacketOf(std::to_string(1000 * client + i) + "\n"));
      });
    }
    for (int i = 0; i < 5; ++i) {
      std::error_code isRotating;  // then there is nothing to move
      std::filesystem::rename(path, folder / ("moved" + std::to_string(i)), isRotating);
      sink->Reopen();
      clock->Advance(std::chrono::seconds(61));
    }
    for (std::thread& each : threads) each.join();
    sink->Store(PacketOf("-1\n"));
    clock->Advance(std::chrono::seconds(61));
    sink->Store(PacketOf("-2\n"));
    EXPECT_EQ(tests::ReadFile(path), "-2\n");
  }
  expected.insert(expected.end(), {"-1", "-2"});
  for (const auto& file : std::filesystem::directory_iterator(folder.Path())) {
    const std::string text = tests::ReadFile(file.path());
    EXPECT_LE(text.size(), 2000U);
    for (const std::string& line : tests::Lines(text)) found.push_back(line);
  }
  EXPECT_THAT(found, testing::UnorderedElementsAreArray(expected));
}

// What other programs do to a file while it is served: nothing that is answered later goes anywhere else.
TEST(Sinks, FilesThatOthersChangeKeepEveryRecord) {
  const tests::TemporaryFolder folder;
  const std::string path = folder / "out", moved = folder / "moved", stored = "{}\n";
  const struct {
    const char* what;
    std::function<void()> change;
    std::string after;
  } cases[] = {
      {"rm", [&] { std::filesystem::remove(path); }, stored},
      {"create", [&] { std::filesystem::rename(path, moved), tests::WriteFile(path, ""); }, stored},
      {"copytruncate", [&] { std::filesystem::resize_file(path, 0); }, stored},
      {"cut in a line", [&] { std::filesystem::resize_file(path, 1); }, "{\n" + stored},
      {"foreign lines", [&] { tests::WriteFile(path, "{}\n{\"b\":0}\n{"); }, "{}\n{\"b\":0}\n{\n" + stored},
      {"a foreign file", [&] { tests::WriteFile(moved, "?\n"), std::filesystem::rename(moved, path); }, ""},
  };
  for (const auto& each : cases) {
    std::filesystem::remove(path);
    const auto sink = OpenSink({path});
    sink->Store(PacketOf(stored));
    each.change();
    if (each.after.empty()) {
      EXPECT_THROW(sink->Store(PacketOf(stored)), std::runtime_error) << each.what;
      EXPECT_EQ(tests::ReadFile(path), "?\n");
    } else {
      EXPECT_EQ(sink->Store(PacketOf(stored)).stored, 1U);
      EXPECT_EQ(tests::ReadFile(path), each.after) << each.what;
    }
  }
}

// The latest ids, and no more, over restarts; the lines are longer than a block of reading.
TEST(Sinks, AFileKnowsAsManyIdsAsItIsTold) {
  const tests::TemporaryFolder folder;
  SinkOptions options{folder / "out"};
  options.rememberedIds = 3000;
  const std::string large = ",\"x\":\"" + std::string(1500000, 'x') + "\"";
  const auto store = [&](int id, const std::string& more = "") {
    const std::string line = "{\"recordId\":\"" + std::to_string(id) + "\"" + more + "}\n";
    return OpenSink(options)->Store(PacketOf(line)).stored;
  };
  for (int id = 1; id <= 3; ++id) EXPECT_EQ(store(id, large), 1U);
  EXPECT_EQ(store(2), 0U);
  EXPECT_EQ(store(3), 0U);
  EXPECT_EQ(store(1), 1U);  // over 3000 KiB ago
  options.rememberedIds = 1;
  EXPECT_EQ(store(1), 0U);
  EXPECT_EQ(store(4), 1U);
  EXPECT_EQ(store(1), 1U);
}

// Compared with a plain list, with ids that come again and table places that are taken and freed.
TEST(Sinks, TheLatestIdsAreKnownAndNoOthers) {
  std::mt19937 random(7);
  for (const std::size_t limit : {0U, 1U, 31U, 32U, 33U, 700U}) {
    RememberedIds ids(limit);
    std::deque<std::string> latest;
    for (int i = 0; i < 20000; ++i) {
      const std::string id = std::to_string(random() % (3 * limit + 2));
      const bool isKnown = std::find(latest.begin(), latest.end(), id) != latest.end();
      ASSERT_EQ(ids.Contains(id), isKnown) << "limit " << limit << ", step " << i;
      if (random() % 5 == 0) {  // several that come to nothing
        for (int k = 0; k < 3; ++k) ids.Add("x" + std::to_string(random() % 9));
        ids.Withdraw();
      }
      ids.Add(id);
      ids.Keep();
      if (!isKnown) latest.push_back(id);
      if (latest.size() > limit) latest.pop_front();
    }
  }
}

// The real server, which all of these share. Each has a database of its own.
class PostgresSink : public testing::Test {
 protected:
  static void SetUpTestSuite() { postgres_ = std::make_unique<tests::Postgres>(); }
  static void TearDownTestSuite() { postgres_.reset(); }

  static std::string MakeDatabase(const std::string& name, const std::string& how = "") {
    postgres_->Run("CREATE DATABASE " + name + " " + how);
    return postgres_->Url("tester", name);
  }
  // Why a packet of one record can't be stored; empty if it was.
  static std::string Problem(RecordSink& sink, const std::string& line = "1\n") {
    try {
      sink.Store(PacketOf(line));
      return "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  static std::unique_ptr<tests::Postgres> postgres_;
};
std::unique_ptr<tests::Postgres> PostgresSink::postgres_;

// Of each sink: what it stores, what it takes for repeated, and what it still knows after a restart.
TEST_F(PostgresSink, AndTheOthersStoreRepeatedRecordsOnce) {
  const struct {
    const char *name, *lines;
    StoreResult result, afterRestart;
  } cases[] = {
      {"a", "{\"recordId\":\"1\"}\n{\"n\":1e999,\"recordId\":\"2\"}\n{\"recordId\":\"1\"}\n", {2, 1}, {0, 3}},
      {"b", "{\"recordId\":7}\n{\"x\":{\"recordId\":\"1\"}}\n\"recordId\"\n", {3, 0}, {3, 0}},
      {"c", "{\"recordId\":\"\"}\n{\"recordId\":\"a\\u0000\"}\n{\"recordId\":\"\\ud800\"}\n", {3, 0}, {3, 0}},
  };
  const tests::TemporaryFolder folder;
  for (const auto& each : cases) {
    const std::string name = folder / each.name;
    for (const std::string& out : {name + ".ndjson", name + ".sqlite", MakeDatabase(each.name)}) {
      const auto expect = [&](RecordSink& sink, const StoreResult& expected) {
        const StoreResult result = sink.Store(PacketOf(each.lines));
        EXPECT_EQ(result.stored, expected.stored) << out;
        EXPECT_EQ(result.repeated, expected.repeated) << out;
      };
      auto sink = OpenSink({out});
      expect(*sink, each.result);
      expect(*sink, each.afterRestart);
      sink.reset();
      expect(*OpenSink({out}), each.afterRestart);
    }
  }
  // Escapes that jsonb refuses.
  EXPECT_EQ(postgres_->Run("SELECT string_agg(DISTINCT json, ' ') FROM records", "c"),
            R"({"recordId":""} {"recordId":"\ud800"} {"recordId":"a\u0000"})");
}

TEST_F(PostgresSink, SaysWhatIsWrongAndRecoversByItself) {
  MakeDatabase("trouble");
  const tests::TemporaryFolder folder;
  const tests::SmallDisk disk(folder / "disk", "4m");
  tests::Postgres::Give(folder.Path());
  tests::Postgres::Give(folder / "disk");
  postgres_->Run("CREATE ROLE writer LOGIN");
  postgres_->Run("GRANT ALL ON SCHEMA public TO writer", "trouble");
  const auto clock = std::make_shared<tests::ManualClock>();
  const auto sink = OpenSink({postgres_->Url("writer:secret", "trouble"), 0, {}, clock});
  const std::string disconnect =
      "SELECT pg_terminate_backend(pid, 5000) FROM pg_stat_activity WHERE usename = 'writer'; ";
  const struct {
    std::string trouble, sentence, remedy;
  } cases[] = {
      {disconnect, "", ""},
      {"ALTER TABLE records OWNER TO tester", "permission denied for table records",
       "ALTER TABLE records OWNER TO writer"},
      {"ALTER TABLE records RENAME TO elsewhere", "relation \"records\" does not exist",
       "ALTER TABLE elsewhere RENAME TO records"},
      {disconnect + "UPDATE records_version SET version = 99",
       "its table has version 99, but this program knows only those up to 1",
       "UPDATE records_version SET version = 1"},
      {disconnect + "ALTER ROLE writer SET default_transaction_read_only = on",
       "cannot execute INSERT in a read-only transaction", "ALTER ROLE writer RESET ALL"},
      {disconnect + "ALTER ROLE writer NOLOGIN", "role \"writer\" is not permitted to log in",
       "ALTER ROLE writer LOGIN"},
      {"CREATE TABLESPACE small LOCATION '" + folder / "disk" + "'", "",
       "ALTER TABLE records SET TABLESPACE small"},
  };
  for (const auto& each : cases) {
    postgres_->Run(each.trouble, "trouble");
    const std::string problem = Problem(*sink);
    EXPECT_THAT(problem, HasSubstr(each.sentence));
    EXPECT_EQ(problem.empty(), each.sentence.empty()) << problem;
    EXPECT_THAT(problem, testing::Not(HasSubstr("secret")));
    if (!each.remedy.empty()) postgres_->Run(each.remedy, "trouble");
    clock->Advance(std::chrono::seconds(2));
    EXPECT_EQ(Problem(*sink), "") << each.trouble;
  }
  if (disk.IsMounted()) {
    disk.FillButFor(0);
    std::string many;
    for (int i = 0; i < 2000; ++i) many += std::to_string(i) + "\n";
    EXPECT_THAT(Problem(*sink, many), HasSubstr("No space left on device"));
    disk.MakeRoom();
    EXPECT_EQ(Problem(*sink, many), "");
  }
  postgres_->Run("DROP TABLE records", "trouble");
  postgres_->Run("DROP TABLESPACE small");
}

TEST_F(PostgresSink, StartsWithoutAServerButNotWithAWrongOne) {
  const struct {
    std::string out, sentence;
  } cases[] = {
      {postgres_->Url("nobody:secret"), "role \"nobody\" does not exist"},
      {postgres_->Url("tester", "none"), "database \"none\" does not exist"},
      {postgres_->Url() + "?sslmode=never", "invalid sslmode value: \"never\""},
      {MakeDatabase("latin", "ENCODING LATIN1 TEMPLATE template0"),
       "the database's encoding is LATIN1; records need UTF8"},
  };
  for (const auto& each : cases) {
    try {
      OpenSink({each.out});
      ADD_FAILURE() << each.out;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), HasSubstr(each.sentence));
      EXPECT_THAT(error.what(), testing::Not(HasSubstr("secret")));
    }
  }
  postgres_->Kill();
  std::string log;
  const auto clock = std::make_shared<tests::ManualClock>();
  const auto sink = OpenSink({postgres_->Url(), 0, {}, clock, [&](const std::string& line) { log += line; }});
  EXPECT_THAT(log, HasSubstr("Connection refused; it is asked again with each message"));
  EXPECT_THAT(Problem(*sink), HasSubstr("Connection refused"));
  postgres_->Start();
  clock->Advance(std::chrono::seconds(2));
  EXPECT_EQ(Problem(*sink), "");
}

// Two servers store, partly the same records, while the database is killed again and again.
TEST_F(PostgresSink, EveryRecordIsThereOnceAfterKills) {
  const std::string url = MakeDatabase("kills");
  constexpr int packets = 300;
  std::atomic<int> confirmed{0};
  std::vector<std::thread> threads;
  for (int server = 0; server < 2; ++server) {
    threads.emplace_back([&, server] {
      const auto clock = std::make_shared<tests::ManualClock>();
      const auto sink = OpenSink({url, 0, {}, clock});
      for (int i = 0; i < packets; ++i) {
        std::string lines;
        for (int record = 0; record < 20; ++record)
          lines.insert(0, "{\"recordId\":\"" + std::to_string(20 * i + server * 5 + record) + "\"}\n");
        EXPECT_TRUE(tests::Eventually([&] {
          clock->Advance(std::chrono::seconds(2));
          return Problem(*sink, lines).empty();
        }));
        ++confirmed;
      }
    });
  }
  for (int kill = 1; kill <= 3; ++kill) {
    EXPECT_TRUE(tests::Eventually([&] { return confirmed > kill * packets / 3; }));
    postgres_->Kill();
    postgres_->Start();
  }
  for (std::thread& each : threads) each.join();
  EXPECT_EQ(postgres_->Run("SELECT count(*) || ' ' || count(DISTINCT id) FROM records", "kills"),
            "6005 6005");
}

}  // namespace
}  // namespace veld_report::server
