// The queue service on SQLite: the contract, and what it promises beyond it.
#include "host/queue/queue_service.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/queue/sqlite_connection.h"
#include "tests/host/queue_contract.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using host::ItemCount;
using host::QueueLedger;
using testing::ElementsAre;
using testing::HasSubstr;

class SqliteQueues final : public QueuesUnderTest {
 public:
  orvel::IQueueFactory& Factory() override { return *service_; }
  void Restart() override {
    service_.Reset();  // ends before the next begins, as the folder is locked
    service_ = host::QueueService::Open({.folder = folder_.Path()});
  }

 private:
  TemporaryFolder folder_;
  zel::Ref<host::QueueService> service_ = host::QueueService::Open({.folder = folder_.Path()});
};

INSTANTIATE_TEST_SUITE_P(Sqlite, QueueContract,
                         testing::Values(QueueMaker{"Sqlite",
                                                    [] { return std::make_unique<SqliteQueues>(); }}));

class QueueServiceTest : public StoreTest {};

TEST_F(QueueServiceTest, FilesAreTheOwnersWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    SCOPED_TRACE(mask);
    const mode_t before = umask(mask);
    options.folder = folder.Path() / ("umask" + std::to_string(mask)) / "";
    Open();
    Push("q", "secret");
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(options.folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0700u);
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(options.folder)) {
      ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
      EXPECT_EQ(status.st_mode & 07777u, 0600u) << entry.path();
      ++files;
    }
    EXPECT_GE(files, 4u) << "store, log, index of the log, lock";
  }
}

TEST_F(QueueServiceTest, AnExistingFolderKeepsItsRightsAndAStoreLosesOthers) {
  const auto file = folder.Path() / "veld_rep.queue";
  ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
  close(open(file.c_str(), O_CREAT | O_WRONLY, 0644));
  Open();
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  ASSERT_EQ(stat(folder.Path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0755u);
}

TEST_F(QueueServiceTest, TheSuperuserLeavesFilesToTheOwnerOfTheFolder) {
  constexpr uid_t nobody = 65534;
  if (geteuid() != 0) GTEST_SKIP() << "only the superuser can make files for others";
  ASSERT_EQ(chown(folder.Path().c_str(), nobody, nobody), 0);
  Open();
  Push("q", "x");
  for (const auto& entry : std::filesystem::directory_iterator(options.folder)) {
    struct stat status {};
    ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, nobody) << entry.path();
  }
}

TEST_F(QueueServiceTest, ADomainThatIsNoSafeFileNameIsRefused) {
  Open();
  for (const char* domain : {"", ".", "..", "a/b", "../x", "a.b", "a b", "\xc3\xa4"}) {
    zel::Ref<orvel::IQueueManager> manager;
    EXPECT_EQ(service->CreateQueueManager(zel::string(domain), manager.Out()), zel::eInvalidArgument)
        << domain;
  }
  const std::string longest(64, 'x');
  zel::Ref<orvel::IQueueManager> manager;
  EXPECT_EQ(service->CreateQueueManager(zel::string(longest), manager.Out()), zel::sOk);
  EXPECT_EQ(service->CreateQueueManager(zel::string(longest + "x"), manager.Out()), zel::eInvalidArgument);
}

TEST_F(QueueServiceTest, RefusalsToOpenSayWhatToDo) {
  Open();
  EXPECT_THAT(OpenError(), HasSubstr("in use by process " + std::to_string(getpid()) + ": end that process"));
  Push("q", "x");
  service.Reset();
  host::SqliteConnection(StorePath(), host::SqliteConnection::Access::kReadWrite)
      .Execute("PRAGMA user_version=99");
  EXPECT_THAT(OpenError(), HasSubstr("use the newer program"));
  EXPECT_EQ(host::SqliteConnection(StorePath(), host::SqliteConnection::Access::kReadWrite)
                .QueryInteger("PRAGMA user_version"),
            99);
  options.folder = "/proc/no such place/store";
  EXPECT_THAT(OpenError(), HasSubstr("choose another one"));
  options.folder.clear();
  EXPECT_THAT(OpenError(), HasSubstr("name one"));
}

TEST_F(QueueServiceTest, AnOpenProducerKeepsTheFolderLocked) {
  Open();
  auto producer = Producer("q");
  service.Reset();
  EXPECT_THAT(OpenError(), HasSubstr("in use"));
  EXPECT_EQ(PushText(*producer, "still works"), zel::sOk);
  producer.Reset();
  Open();
  EXPECT_THAT(Waiting("q"), ElementsAre("still works"));
}

// What stands in the file is seen by a second connection, as after a crash.
class GroupingTest : public QueueServiceTest {
 protected:
  std::int64_t Committed() {
    return host::SqliteConnection(StorePath(), host::SqliteConnection::Access::kRead)
        .QueryInteger("SELECT count(*) FROM items");
  }
};

TEST_F(GroupingTest, AGroupIsCommittedWhenItIsFullOrSomebodyLooks) {
  options.commitDelay = std::chrono::hours(1);
  Open();
  auto producer = Producer("q");
  service->Commit();
  for (int i = 0; i < 63; ++i) ASSERT_EQ(PushText(*producer, "x"), zel::sOk);
  EXPECT_EQ(Committed(), 0);
  ASSERT_EQ(PushText(*producer, "x"), zel::sOk);
  EXPECT_EQ(Committed(), 64);
  ASSERT_EQ(PushText(*producer, "x"), zel::sOk);
  auto reader = Reader("q");
  const auto item = ReadOne(*reader);
  ASSERT_TRUE(item);
  EXPECT_EQ(Committed(), 65) << "before a read";
  reader->Ack(&item->token);
  EXPECT_EQ(Committed(), 65);
  reader.Reset();
  EXPECT_EQ(Committed(), 64) << "with the reader";
  ASSERT_EQ(PushText(*producer, "x"), zel::sOk);
  EXPECT_EQ(Committed(), 64);
  producer.Reset();
  EXPECT_EQ(Committed(), 65) << "with the producer";
}

TEST_F(GroupingTest, AGroupThatStaysSmallIsCommittedByItself) {
  Open();
  const auto producer = Producer("q");
  ASSERT_EQ(PushText(*producer, "x"), zel::sOk);
  EXPECT_TRUE(Eventually([&] { return Committed() == 1; }));
}

TEST_F(GroupingTest, EveryPushIsCommittedIfWanted) {
  options.commitDelay = std::chrono::hours(1);
  options.commitEveryPush = true;
  options.syncEveryCommit = true;
  Open();
  const auto producer = Producer("q");
  for (int i = 1; i <= 3; ++i) {
    ASSERT_EQ(PushText(*producer, "x"), zel::sOk);
    EXPECT_EQ(Committed(), i);
  }
}

TEST_F(QueueServiceTest, AKilledProcessLosesNoMoreThanAnOpenGroup) {
  options.commitDelay = std::chrono::hours(1);
  constexpr int pushed = 3 * 64 + 10;
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    Open();
    const auto producer = Producer("q");
    for (int i = 0; i < pushed; ++i) PushText(*producer, Numbered(static_cast<std::size_t>(i)));
    const auto claim = Reader("other");
    raise(SIGKILL);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status));
  Open();
  const auto waiting = Waiting("q");
  ASSERT_EQ(waiting.size(), 192u);
  for (std::size_t i = 0; i < waiting.size(); ++i) EXPECT_EQ(waiting[i], Numbered(i));
}

TEST_F(QueueServiceTest, PeopleCanLookInsideWithoutClaiming) {
  std::int64_t now = 1'000'000;
  options.nowMs = [&] { return now; };
  Open();
  Push("a", "first");
  now += 250;
  Push("a", "second");
  const auto empty = Producer("b");
  now += 1000;
  const auto holder = Reader("a");
  ASSERT_TRUE(ReadOne(*holder));
  const auto queues = service->ListQueues();
  ASSERT_EQ(queues.size(), 2u);
  EXPECT_EQ(queues[0].name, "a");
  EXPECT_EQ(queues[0].items, 2);
  EXPECT_EQ(queues[0].bytes, 11);
  EXPECT_EQ(queues[0].oldestAgeMs, 1250);
  EXPECT_EQ(queues[1].items, 0);
  EXPECT_FALSE(queues[1].oldestAgeMs);
  const auto items = service->PeekItems("a", 5);
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].bytes, "first");
  EXPECT_EQ(items[1].enqueuedMs, 1'000'250);
  EXPECT_EQ(service->PeekItems("a", 1).size(), 1u);
  EXPECT_TRUE(service->PeekItems("none", 1).empty());
  EXPECT_EQ(service->TotalWaiting(), (ItemCount{2, 11}));
  EXPECT_TRUE(service->ClearQueue("a"));
  EXPECT_FALSE(service->ClearQueue("a"));
  service->Forget();
  EXPECT_TRUE(service->ListQueues().empty());
  EXPECT_EQ(service->TotalWaiting(), (ItemCount{}));
}

class LedgerTest : public QueueServiceTest {
 protected:
  // The same in memory and, after a restart, in the file.
  void Expect(const QueueLedger& expected, const char* queue = "q") {
    for (const char* when : {"in memory", "in the file"}) {
      SCOPED_TRACE(when);
      const QueueLedger ledger = service->Ledgers()[queue];
      EXPECT_TRUE(ledger.IsBalanced());
      EXPECT_EQ(ledger, expected) << testing::PrintToString(ledger);
      Open();
    }
  }
};

TEST_F(LedgerTest, DeliveredReturnedAndRemovedItemsAreCounted) {
  Open();
  for (const char* text : {"1", "22", "333", "4444"}) Push("q", text);
  {
    const auto reader = Reader("q");
    const auto items = ReadAll(*reader);
    ASSERT_EQ(items.size(), 4u);
    reader->Ack(&items[0].token);
    reader->ReturnItem(&items[1].token);
    std::thread([&] { reader->Ack(&items[2].token); }).join();
    reader->Ack(&items[2].token);  // a second time
  }
  Expect({.accepted = {4, 10}, .delivered = {2, 4}, .waiting = {2, 6}, .returned = {1, 2}});
  {
    const auto producer = Producer("q");
    PushText(*producer, "still in the buffer");
    EXPECT_TRUE(service->ClearQueue("q"));
  }
  Expect({.accepted = {5, 29}, .delivered = {2, 4}, .removed = {3, 25}, .returned = {1, 2}});
  Push("q", "anew");
  Expect(
      {.accepted = {6, 33}, .delivered = {2, 4}, .removed = {3, 25}, .waiting = {1, 4}, .returned = {1, 2}});
}

// As the module makes room: a reader right after the refusal, on the same thread, until the item fits.
TEST_F(LedgerTest, MakingRoomCountsAsEvictionAndTheRetryAsNoLoss) {
  Open();
  {
    const auto producer = Producer("q", 10);
    for (const char* text : {"aaa", "bbb", "ccc"}) ASSERT_EQ(PushText(*producer, text), zel::sOk);
    ASSERT_EQ(PushText(*producer, "wide"), zel::eOutOfSpace);
    EXPECT_EQ(service->Ledgers()["q"].rejected, (ItemCount{1, 4})) << "until the retry";
  }
  Expect({.accepted = {4, 13}, .rejected = {1, 4}, .waiting = {3, 9}});
  {
    const auto producer = Producer("q", 10);
    EXPECT_EQ(EvictAndPush(*producer, "q", "new_one"), zel::sOk);
  }
  Expect({.accepted = {5, 20}, .evicted = {2, 6}, .rejected = {1, 4}, .waiting = {2, 10}});
  {
    const auto producer = Producer("q", 10);
    EXPECT_EQ(EvictAndPush(*producer, "q", "never fits in"), zel::eOutOfSpace);
    EXPECT_EQ(PushText(*producer, "other"), zel::sOk);
  }
  Expect({.accepted = {7, 38}, .evicted = {4, 16}, .rejected = {2, 17}, .waiting = {1, 5}});
}

TEST_F(LedgerTest, OnlyTheVeryNextReaderOfTheSameThreadAndQueueEvicts) {
  struct Case {
    const char* what;
    std::function<zel::Ref<orvel::IAckConsumer>()> openReader;
    bool ackElsewhere;
  };
  const std::vector<Case> cases = {
      {"another call between",
       [&] {
         zel::Ref<orvel::IQueueManager> manager;
         service->CreateQueueManager(zel::string("veld_rep"), manager.Out());
         zel::vector_t<zel::string> names;
         manager->EnumerateQueues(&names);
         return Reader("q");
       },
       false},
      {"a reader of another queue between", [&] { return Reader("r"), Reader("q"); }, false},
      {"another thread",
       [&] {
         zel::Ref<orvel::IAckConsumer> reader;
         std::thread([&] { reader = Reader("q"); }).join();
         return reader;
       },
       false},
      {"acknowledged on another thread", [&] { return Reader("q"); }, true},
  };
  Open();
  for (const Case& row : cases) {
    SCOPED_TRACE(row.what);
    service->ClearQueue("q");
    const auto producer = Producer("q", 4);
    ASSERT_EQ(PushText(*producer, "full"), zel::sOk);
    const QueueLedger before = service->Ledgers()["q"];
    ASSERT_EQ(PushText(*producer, "x"), zel::eOutOfSpace);
    const auto reader = row.openReader();
    const auto item = ReadOne(*reader);
    ASSERT_TRUE(item);
    const auto acknowledge = [&] { reader->Ack(&item->token); };
    row.ackElsewhere ? std::thread(acknowledge).join() : acknowledge();
    const QueueLedger after = service->Ledgers()["q"];
    EXPECT_EQ(after.delivered.items, before.delivered.items + 1);
    EXPECT_EQ(after.evicted, before.evicted);
    EXPECT_EQ(after.rejected.items, before.rejected.items + 1);
  }
}

TEST_F(LedgerTest, RefusedPushesOfACallerWhoMakesNoRoomAreLossesEach) {
  Open();
  {
    const auto producer = Producer("q", 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(PushText(*producer, "wide"), zel::eOutOfSpace);
  }
  Expect({.accepted = {3, 12}, .rejected = {3, 12}});
}

TEST_F(LedgerTest, BalancesWhileManyThreadsPushEvictAndDeliver) {
  Open();
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&] {
      const auto producer = Producer("q", 2000);
      for (int i = 0; i < 1000; ++i) EvictAndPush(*producer, "q", std::string(20, 'x'));
    });
  }
  std::thread deliverer([&] {
    while (!stop) {
      const auto reader = Reader("q");
      for (const ReadItem& item : ReadAll(*reader, 10)) reader->Ack(&item.token);
    }
  });
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(service->Ledgers()["q"].IsBalanced());
  for (std::thread& thread : threads) thread.join();
  stop = true;
  deliverer.join();
  Open();
  const QueueLedger ledger = service->Ledgers()["q"];
  EXPECT_TRUE(ledger.IsBalanced());
  EXPECT_EQ(ledger.accepted.items, 3000);
  EXPECT_EQ(ledger.waiting.items, static_cast<std::int64_t>(Waiting("q").size()));
}

}  // namespace
}  // namespace veld_report::tests
