// Damaged stores, stores of other layouts, and what people do about them.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "host/queue/sqlite_connection.h"
#include "host/queue/store_layout.h"
#include "host/queue/store_maintenance.h"
#include "tests/host/queue_test_tools.h"
#include "tests/host/recording_tracer.h"

namespace veld_report::tests {
namespace {

using host::ItemCount;
using host::SqliteConnection;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::size_t pageBytes = 4096;
constexpr std::size_t itemCount = 600;

std::string ItemText(std::size_t number) { return Numbered(number) + std::string(300, '.'); }

class QueueDamageTest : public StoreTest {
 protected:
  QueueDamageTest() { options.tracer = tracer; }

  // Six hundred items in one queue, of which the first ten are delivered.
  void MakeStore() {
    Open();
    {
      const auto producer = Producer("q");
      for (std::size_t i = 0; i < itemCount; ++i) ASSERT_EQ(PushText(*producer, ItemText(i)), zel::sOk);
      const auto reader = Reader("q");
      for (const ReadItem& item : ReadAll(*reader, 10)) {
        reader->Ack(&item.token);
        lastToken = item.token + itemCount;
      }
    }
    service.Reset();
  }
  // Numbers of the pages of a table or index, from 1.
  std::vector<std::int64_t> Pages(const std::string& name, const std::string& type) {
    const SqliteConnection connection(StorePath(), SqliteConnection::Access::kReadWrite);
    host::SqliteStatement rows(connection, "SELECT pageno FROM dbstat WHERE name='" + name +
                                               "' AND pagetype='" + type + "' ORDER BY path");
    std::vector<std::int64_t> pages;
    while (rows.Step()) pages.push_back(rows.Integer(0));
    return pages;
  }
  void Overwrite(std::int64_t page, char value, std::size_t bytes = pageBytes) {
    std::fstream file(StorePath(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp((page - 1) * static_cast<std::int64_t>(pageBytes));
    file << std::string(bytes, value);
    ASSERT_TRUE(file.flush());
  }
  std::string FileContent(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  zel::Ref<RecordingTracer> tracer = host::MakeObject<RecordingTracer>();
  std::uint64_t lastToken = 0;
};

TEST_F(QueueDamageTest, ADamagedStoreIsMovedAsideAndSalvaged) {
  constexpr std::int64_t waiting = itemCount - 10;
  constexpr std::int64_t unknown = -1;
  struct Case {
    const char* what;
    std::function<void()> damage;
    std::int64_t least;  // items that must come back
    std::int64_t lost;
  };
  const std::vector<Case> cases = {
      {"first page zeroed", [&] { Overwrite(1, 0); }, waiting, 0},
      {"first bytes wrong", [&] { Overwrite(1, 'x', 16); }, waiting, 0},
      {"a page of items zeroed", [&] { Overwrite(Pages("items", "leaf")[10], 0); }, waiting - 15, waiting},
      {"three pages of items wrong",
       [&] {
         const auto pages = Pages("items", "leaf");
         for (const std::size_t i : {3u, 20u, 40u}) Overwrite(pages[i], '\xff');
       },
       waiting - 45, waiting},
      {"figures zeroed", [&] { Overwrite(Pages("queues", "leaf")[0], 0); }, waiting, unknown},
      {"index of the items wrong", [&] { Overwrite(Pages("items_by_queue", "leaf")[0], '\xee'); }, waiting,
       0},
      {"cut in the middle",
       [&] { std::filesystem::resize_file(StorePath(), std::filesystem::file_size(StorePath()) / 2); }, 100,
       waiting},
      {"cut to some bytes", [&] { std::filesystem::resize_file(StorePath(), 100); }, 0, unknown},
      {"another file", [&] { std::ofstream(StorePath()) << std::string(100'000, '?'); }, 0, unknown},
      {"first page of a compacted store",
       [&] {
         host::CompactStore(options.folder);
         Overwrite(1, 0);
       },
       waiting, 0},
  };
  int number = 0;
  for (const Case& row : cases) {
    SCOPED_TRACE(row.what);
    options.folder = folder.Path() / std::to_string(number++);
    MakeStore();
    row.damage();
    const std::string damaged = FileContent(StorePath());
    EXPECT_THAT(host::CheckStore(options.folder)[0].findings, testing::Not(IsEmpty()));
    EXPECT_TRUE(FileContent(StorePath()) == damaged) << "a check changes nothing";
    const std::size_t lines = tracer->Lines().size();
    Open();
    ASSERT_THAT(tracer->Lines(), SizeIs(lines + 2));
    EXPECT_THAT(tracer->Lines()[lines], HasSubstr("is damaged"));
    const auto aside = host::DamagedFilesOf(StorePath());
    ASSERT_THAT(aside, SizeIs(1));
    EXPECT_TRUE(FileContent(aside[0]) == damaged) << "the damaged file is kept as it is";

    const auto found = Waiting("q");
    std::size_t next = 10;
    for (const std::string& text : found) {
      while (next < itemCount && ItemText(next) != text) ++next;
      EXPECT_LT(next++, itemCount) << "out of order, twice or wrong: " << text.substr(0, 10);
    }
    const auto salvaged = static_cast<std::int64_t>(found.size());
    EXPECT_GE(salvaged, row.least);
    const host::QueueLedger ledger = service->Ledgers()["q"];
    EXPECT_TRUE(ledger.IsBalanced());
    EXPECT_EQ(ledger.waiting.items, salvaged);
    EXPECT_EQ(ledger.damaged, ledger.removed);
    const std::string report = tracer->Lines()[lines + 1];
    EXPECT_THAT(report, HasSubstr(" " + std::to_string(salvaged) + " items were salvaged"));
    if (row.lost == unknown) {
      EXPECT_THAT(report, HasSubstr("an unknown number is lost"));
    } else {
      EXPECT_EQ(ledger.damaged.items, waiting - salvaged);
      EXPECT_EQ(ledger.accepted.items, static_cast<std::int64_t>(itemCount));
      EXPECT_THAT(report, HasSubstr(std::to_string(waiting - salvaged) + " are lost"));
    }

    Push("new", "pushed after the damage");
    EXPECT_GT(ReadOne(*Reader("new"))->token, lastToken);
    service.Reset();
    EXPECT_THAT(host::CheckStore(options.folder)[0].findings, IsEmpty());
    EXPECT_THAT(host::SalvageStore(options.folder), IsEmpty()) << "it is salvaged already";
    Open();
    EXPECT_EQ(tracer->Lines().size(), lines + 2);
    service.Reset();
  }
}

// As after a crash: what isn't checkpointed stands in the log alone.
TEST_F(QueueDamageTest, TheLogOfADamagedStoreCounts) {
  Open();
  const auto crashed = folder.Path() / "crashed";
  {
    const auto producer = Producer("q");
    for (std::size_t i = 0; i < 100; ++i) ASSERT_EQ(PushText(*producer, ItemText(i)), zel::sOk);
    service->Commit();
    std::filesystem::create_directory(crashed);
    for (const char* name : {"veld_rep.queue", "veld_rep.queue-wal"}) {
      std::filesystem::copy_file(options.folder / name, crashed / name);
    }
  }
  options.folder = crashed;
  std::filesystem::resize_file(StorePath(), 0);
  Open();
  EXPECT_THAT(Waiting("q"), SizeIs(100));
  EXPECT_THAT(host::DamagedFilesOf(StorePath()), SizeIs(1));
}

TEST_F(QueueDamageTest, DamageWhileOpenFailsOperationsAndIsRepairedAtTheNextOpening) {
  constexpr std::int64_t many = 10'000;  // more than SQLite holds in memory
  Open();
  {
    const auto producer = Producer("q");
    for (int i = 0; i < many; ++i) ASSERT_EQ(PushText(*producer, std::string(300, 'x')), zel::sOk);
  }
  Open();
  for (const std::int64_t page : Pages("items", "leaf")) Overwrite(page, '\xff');
  EXPECT_LT(Waiting("q").size(), many);
  EXPECT_THAT(tracer->Lines(), testing::Contains(HasSubstr("can't read an item")));
  PushText(*Producer("q"), "may be refused");
  Open();
  EXPECT_THAT(host::DamagedFilesOf(StorePath()), SizeIs(1));
  const host::QueueLedger ledger = service->Ledgers()["q"];
  EXPECT_TRUE(ledger.IsBalanced());
  EXPECT_GT(ledger.damaged.items, many / 2);
  EXPECT_EQ(ledger.waiting.items, static_cast<std::int64_t>(Waiting("q").size()));
  Push("q", "works");
}

TEST_F(QueueDamageTest, PeopleCanSalvageCheckAndCompact) {
  MakeStore();
  std::filesystem::rename(StorePath(), StorePath().string() + ".damaged-20260102T030405Z");
  Open();
  service->ClearQueue("q");
  // One that the start couldn't salvage.
  std::filesystem::remove(StorePath().string() + ".damaged-20260102T030405Z.salvaged");
  service.Reset();
  EXPECT_THAT(host::CheckStore(options.folder)[0].findings, ElementsAre(HasSubstr("hasn't been salvaged")));
  const auto reports = host::SalvageStore(options.folder);
  ASSERT_THAT(reports, SizeIs(1));
  EXPECT_EQ(reports[0].salvaged.items, static_cast<std::int64_t>(itemCount - 10));
  const auto checks = host::CheckStore(options.folder);
  ASSERT_THAT(checks, SizeIs(1));
  EXPECT_TRUE(checks[0].IsGood());
  EXPECT_EQ(checks[0].domain, "veld_rep");
  EXPECT_EQ(checks[0].waiting, reports[0].salvaged);

  Open();
  service->ClearQueue("q");
  service.Reset();
  const auto compacted = host::CompactStore(options.folder);
  ASSERT_THAT(compacted, SizeIs(1));
  EXPECT_LT(compacted[0].bytesAfter * 4, compacted[0].bytesBefore);
  EXPECT_TRUE(host::CheckStore(options.folder)[0].IsGood());

  Open();
  EXPECT_THROW(host::CheckStore(options.folder), host::StoreError) << "in use";
  EXPECT_THROW(host::SalvageStore(options.folder / "none"), host::StoreError);
}

TEST_F(QueueDamageTest, ACheckFindsFiguresThatDontFit) {
  MakeStore();
  SqliteConnection(StorePath(), SqliteConnection::Access::kReadWrite)
      .Execute("DELETE FROM items WHERE token % 2 = 0; INSERT INTO items VALUES(9999, 77, 0, x'00')");
  EXPECT_THAT(
      host::CheckStore(options.folder)[0].findings,
      ElementsAre(HasSubstr("queue q should hold 590 items and holds 295"), "1 items belong to no queue"));
}

TEST_F(QueueDamageTest, AnEarlierLayoutIsUpgradedAndACopyKeptUntilTheFirstCleanClose) {
  host::PreparePrivateFile(StorePath());
  {
    SqliteConnection old(StorePath(), SqliteConnection::Access::kReadWrite);
    std::string figures;
    for (const char* name :
         {"accepted", "delivered", "evicted", "rejected", "removed", "waiting", "returned"}) {
      for (const char* unit : {"", "_bytes"}) {
        figures += std::string(", ") + name + unit + " INTEGER NOT NULL DEFAULT 0";
      }
    }
    old.Execute(
        "CREATE TABLE queues(id INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, present INTEGER NOT NULL" +
        figures + ");" +
        "CREATE TABLE items(token INTEGER PRIMARY KEY AUTOINCREMENT, queue INTEGER NOT NULL,"
        " enqueued_ms INTEGER NOT NULL, data BLOB NOT NULL);"
        "CREATE INDEX items_by_queue ON items(queue);"
        "INSERT INTO queues(id, name, present, accepted, accepted_bytes, waiting, waiting_bytes,"
        " delivered, delivered_bytes) VALUES(7, 'q', 1, 3, 9, 2, 6, 1, 3);"
        "INSERT INTO items VALUES(4, 7, 1000, 'old'), (5, 7, 1000, 'two');"
        "PRAGMA application_id=1986815089; PRAGMA user_version=1; PRAGMA journal_mode=WAL");
  }
  const auto copy = host::EarlierLayoutCopy(StorePath(), 1);
  Open();
  EXPECT_THAT(Waiting("q"), ElementsAre("old", "two"));
  EXPECT_EQ(service->Ledgers()["q"],
            (host::QueueLedger{.accepted = {3, 9}, .delivered = {1, 3}, .waiting = {2, 6}}));
  struct stat status {};
  ASSERT_EQ(stat(copy.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  EXPECT_EQ(SqliteConnection(copy, SqliteConnection::Access::kReadWrite).QueryInteger("PRAGMA user_version"),
            1);
  Open();
  EXPECT_FALSE(std::filesystem::exists(copy));
  EXPECT_THAT(Waiting("q"), ElementsAre("old", "two"));
  EXPECT_THAT(tracer->Lines(), IsEmpty());
}

TEST_F(QueueDamageTest, ALaterLayoutIsRefusedAndLeftAlone) {
  MakeStore();
  SqliteConnection(StorePath(), SqliteConnection::Access::kReadWrite).Execute("PRAGMA user_version=3");
  const std::string before = FileContent(StorePath());
  EXPECT_THAT(OpenError(), HasSubstr("has layout 3, and this program knows layouts up to 2"));
  EXPECT_TRUE(FileContent(StorePath()) == before);
  EXPECT_THAT(host::DamagedFilesOf(StorePath()), IsEmpty());
}

}  // namespace
}  // namespace veld_report::tests
