// Damaged stores, and what people do about them.
#include <gmock/gmock.h>

#include "host/queue/sqlite_connection.h"
#include "host/queue/store_salvage.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

namespace fs = std::filesystem;
using host::SqliteConnection;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t pageBytes = 4096;
constexpr std::size_t itemCount = 600;
constexpr std::int64_t waitingCount = itemCount - 10;

std::string ItemText(std::size_t number) { return Numbered(number) + std::string(300, '.'); }

class QueueDamageTest : public StoreTest {
 protected:
  QueueDamageTest() { options.tracer = lines.tracer; }

  // Items in one queue, of which the first ten are delivered. Returns the last token.
  std::uint64_t MakeStore() {
    Open();
    {
      const auto producer = Producer("q");
      for (std::size_t i = 0; i < itemCount; ++i) EXPECT_EQ(PushText(*producer, ItemText(i)), zel::sOk);
      const auto reader = Reader("q");
      for (const ReadItem& item : ReadAll(*reader, 10)) reader->Ack(&item.token);
    }
    const std::uint64_t last = service->LastToken();
    service.Reset();
    return last;
  }
  SqliteConnection Database() { return {StorePath(), SqliteConnection::Access::readWrite}; }
  // Numbers, from 1, of the pages that hold the rows of a table or index.
  std::vector<std::int64_t> Pages(const std::string& name) {
    const SqliteConnection database = Database();
    host::SqliteStatement rows(
        database, "SELECT pageno FROM dbstat WHERE name='" + name + "' AND pagetype='leaf' ORDER BY path");
    std::vector<std::int64_t> pages;
    while (rows.Step()) pages.push_back(rows.Integer(0));
    return pages;
  }
  void Overwrite(std::int64_t page, char value, std::size_t bytes = pageBytes) {
    std::fstream file(StorePath(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp((page - 1) * pageBytes);
    file << std::string(bytes, value);
    ASSERT_TRUE(file.flush());
  }
  void Cut(std::uintmax_t bytes) { fs::resize_file(StorePath(), bytes); }

  TracedLines lines;
};

TEST_F(QueueDamageTest, ADamagedStoreIsMovedAsideAndSalvaged) {
  struct Case {
    const char* what;
    std::function<void()> damage;
    std::int64_t least;  // items that must come back
    bool lossIsKnown = true;
  };
  const Case cases[] = {
      {"first page zeroed", [&] { Overwrite(1, 0); }, waitingCount},
      {"a page of items zeroed", [&] { Overwrite(Pages("items")[10], 0); }, waitingCount - 15},
      {"figures zeroed", [&] { Overwrite(Pages("queues")[0], 0); }, waitingCount, false},
      {"index of the items wrong", [&] { Overwrite(Pages("items_by_queue")[0], '\xee'); }, waitingCount},
      {"cut in the middle", [&] { Cut(fs::file_size(StorePath()) / 2); }, 100},
      {"cut to some bytes", [&] { Cut(100); }, 0, false},
      {"another file", [&] { std::ofstream(StorePath()) << std::string(100'000, '?'); }, 0, false},
      {"first page of a compacted store",
       [&] {
         host::CompactStore(options.folder);
         Overwrite(1, 0);
       },
       waitingCount},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.what);
    options.folder = folder.Path() / row.what;
    const std::uint64_t lastToken = MakeStore();
    row.damage();
    const std::string damaged = ReadFile(StorePath());
    EXPECT_THAT(Findings(), testing::Not(IsEmpty()));
    EXPECT_TRUE(ReadFile(StorePath()) == damaged) << "a check changes nothing";
    Open();
    const auto aside = host::DamagedFilesOf(StorePath());
    ASSERT_THAT(aside, SizeIs(1));
    EXPECT_TRUE(ReadFile(aside[0]) == damaged) << "the damaged file is kept as it is";

    const auto found = Waiting("q");
    std::size_t next = 10;
    for (const std::string& text : found) {
      while (next < itemCount && ItemText(next) != text) ++next;
      EXPECT_LT(next++, itemCount) << "out of order, twice or wrong: " << text.substr(0, 10);
    }
    const auto salvaged = static_cast<std::int64_t>(found.size());
    const std::int64_t lost = waitingCount - salvaged;
    EXPECT_GE(salvaged, row.least);
    const QueueLedger ledger = Ledger();
    EXPECT_EQ(ledger.waiting.items, salvaged);
    EXPECT_EQ(ledger.damaged, ledger.removed);
    EXPECT_TRUE(!row.lossIsKnown || ledger.damaged.items == lost);
    EXPECT_THAT(lines.Take(),
                ElementsAre(HasSubstr("is damaged"),
                            testing::AllOf(HasSubstr(" " + std::to_string(salvaged) + " items were salvaged"),
                                           HasSubstr(row.lossIsKnown ? std::to_string(lost) + " are lost"
                                                                     : "an unknown number is lost"))));

    Push("new", "pushed after the damage");
    EXPECT_GT(ReadOne(*Reader("new"))->token, lastToken);
    EXPECT_THAT(Findings(), IsEmpty());
    EXPECT_THAT(host::SalvageStore(options.folder), IsEmpty()) << "it is salvaged already";
    Open();
    EXPECT_THAT(lines.Take(), IsEmpty());
    service->ClearQueue("q");
    fs::remove(aside[0].string() + ".salvaged");  // as if the start couldn't salvage it
    EXPECT_THAT(Findings(), ElementsAre(HasSubstr("hasn't been salvaged")));
    EXPECT_EQ(host::SalvageStore(options.folder)[0].salvaged.items, salvaged);
  }
}

// What a check would find shows whether there was one.
TEST_F(QueueDamageTest, ALargeStoreIsCheckedUnlessItIsKnownToBeSound) {
  const auto mark = [&] { return StorePath().string() + ".sound"; };
  std::string opened;  // what the mark says while the store is open
  struct Case {
    const char* what;
    bool touched;  // the file's time tells of the damage
    std::function<void()> before;
    bool checked;
  };
  const Case cases[] = {
      {"closed and untouched", false, [] {}, false},
      {"changed since", true, [] {}, true},
      {"no mark", false, [&] { fs::remove(mark()); }, true},
      {"its process was killed", true, [&] { std::ofstream(mark()) << opened; }, false},
      {"open when the machine went down", true, [&] { std::ofstream(mark()) << "open another-boot 1"; },
       true},
      {"copied while it was open", true,
       [&] {
         std::ofstream(mark()) << opened;
         fs::copy_file(StorePath(), folder.Path() / "copy");
         fs::rename(folder.Path() / "copy", StorePath());
       },
       true},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.what);
    options.folder = folder.Path() / row.what;
    MakeStore();
    const std::int64_t page = Pages("items")[5];
    Open();
    for (int i = 0; i < 25; ++i) Push("large", std::string(200'000, 'x'));
    opened = ReadFile(mark());
    service.Reset();
    const auto time = fs::last_write_time(StorePath());
    Overwrite(page, 0);
    if (!row.touched) fs::last_write_time(StorePath(), time);
    row.before();
    Open();
    const auto isDamaged = ElementsAre(HasSubstr("is damaged"), HasSubstr("were salvaged"));
    if (row.checked) {
      EXPECT_THAT(lines.Take(), isDamaged);
      continue;
    }
    EXPECT_THAT(lines.Take(), IsEmpty());
    Waiting("q");
    EXPECT_THAT(lines.Take(), ElementsAre(HasSubstr("can't read an item")));
    Open();
    EXPECT_THAT(lines.Take(), isDamaged) << "damage has shown, so nothing vouches any more";
  }
}

}  // namespace
}  // namespace veld_report::tests
