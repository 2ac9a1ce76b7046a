// Failing reads, writes, syncs and truncations, and a disk that is full.
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "host/queue/sqlite_connection.h"
#include "host/queue/store_maintenance.h"
#include "tests/host/faulty_vfs.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

using Strings = std::vector<std::string>;

// What a store must hold in the end, kept beside it by a scenario: what it has answered 0 to, and nothing
// else.
struct Expectation {
  Strings a;
  Strings b;
  std::set<std::string> delivered;  // of a
};

class QueueFaultsTest : public StoreTest {
 protected:
  QueueFaultsTest() {
    FaultyVfs::Register();
    options.vfs = FaultyVfs::name;
    options.commitOperations = 8;
    options.syncEveryCommit = true;
    // Short, so that pushes are tried again soon after a failure.
    options.commitDelay = std::chrono::milliseconds(2);
  }
  ~QueueFaultsTest() override { FaultyVfs::Heal(); }

  bool TryOpen() {
    service.Reset();
    try {
      service = host::QueueService::Open(options);
      return true;
    } catch (const host::StoreError&) {
      return false;  // with a sentence; any other exception ends the test
    }
  }

  void PushSome(const char* queue, std::size_t count, Strings* accepted) {
    zel::Ref<orvel::IQueueProducer> producer;
    const auto code =
        service->CreateProducer(zel::string("veld_rep"), zel::string(queue), 1 << 28, producer.Out());
    if (code != zel::sOk) return;  // the domain's file couldn't be made
    for (std::size_t i = 0; i < count; ++i) {
      const std::string text = queue + std::to_string(number++) + std::string(400, '.');
      const zel::ResultCode answer = PushText(*producer, text);
      EXPECT_NE(answer, zel::eOutOfSpace);
      if (answer == zel::sOk) accepted->push_back(text);
    }
  }

  void Deliver(Expectation* expected) {
    zel::Ref<orvel::IAckConsumer> reader;
    if (service->CreateAckConsumer(zel::string("veld_rep"), zel::string("a"), reader.Out()) != zel::sOk)
      return;
    for (const ReadItem& item : ReadAll(*reader, 12)) {
      EXPECT_FALSE(expected->delivered.contains(item.bytes)) << "read after it was acknowledged";
      EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
      expected->delivered.insert(item.bytes);
    }
    for (const ReadItem& item : ReadAll(*reader, 3)) {
      EXPECT_FALSE(expected->delivered.contains(item.bytes)) << "read after it was acknowledged";
      EXPECT_EQ(reader->ReturnItem(&item.token), zel::sOk);
    }
  }

  // Two queues filled, one delivered from in two visits, the other removed and filled again, one cleared.
  void RunScenario(Expectation* expected) {
    PushSome("a", 30, &expected->a);
    PushSome("b", 10, &expected->b);
    Deliver(expected);
    zel::Ref<orvel::IQueueManager> manager;
    if (service->CreateQueueManager(zel::string("veld_rep"), manager.Out()) == zel::sOk) {
      if (manager->RemoveQueue(zel::string("b")) == zel::sOk) expected->b.clear();
    }
    PushSome("b", 5, &expected->b);
    Strings forgotten;
    PushSome("c", 5, &forgotten);
    try {
      service->ClearQueue("c");
    } catch (const host::StoreError&) {
      // Its items are gone all the same; that they may be readable is what it has said.
    }
    Deliver(expected);
  }

  void Compare(const Expectation& expected) {
    Strings rest;
    for (const std::string& text : expected.a) {
      if (!expected.delivered.contains(text)) rest.push_back(text);
    }
    EXPECT_EQ(Waiting("a"), rest);
    EXPECT_EQ(Waiting("b"), expected.b);
    EXPECT_THAT(Waiting("c"), IsEmpty());
    for (const auto& [name, ledger] : service->Ledgers()) {
      EXPECT_TRUE(ledger.IsBalanced()) << name << ": " << testing::PrintToString(ledger);
      EXPECT_EQ(ledger.damaged.items, 0);
    }
    EXPECT_EQ(service->Ledgers()["a"].delivered.items, static_cast<std::int64_t>(expected.delivered.size()));
  }

  // One run of the scenario. Returns whether the failure happened at all.
  bool RunWithFault(FaultyVfs::Operation operation, std::int64_t at, bool onwards) {
    options.folder = folder.Path() / std::to_string(runs++);
    number = 0;
    Expectation expected;
    FaultyVfs::FailAt(operation, at, onwards);
    if (!TryOpen()) {
      FaultyVfs::Heal();
      EXPECT_TRUE(TryOpen());
    }
    RunScenario(&expected);
    if (onwards) FaultyVfs::Heal();
    EXPECT_TRUE(service->Commit()) << "goes on by itself when the fault is over";
    service.Reset();
    const bool happened = FaultyVfs::Failures() != 0;
    FaultyVfs::Heal();
    Open();
    Compare(expected);
    service.Reset();
    EXPECT_THAT(host::CheckStore(options.folder)[0].findings, IsEmpty());
    std::filesystem::remove_all(options.folder);
    return happened;
  }

  std::size_t number = 0;
  int runs = 0;
};

struct Sweep {
  const char* name;
  FaultyVfs::Operation operation;
};
void PrintTo(const Sweep& sweep, std::ostream* out) { *out << sweep.name; }

class FaultSweepTest : public QueueFaultsTest, public testing::WithParamInterface<Sweep> {};

TEST_P(FaultSweepTest, NothingThatWasAcceptedIsLostAndNothingDeliveredComesBack) {
  constexpr std::int64_t most = 2000;
  for (const bool onwards : {false, true}) {
    std::int64_t at = 1;
    for (; at < most; ++at) {
      SCOPED_TRACE(std::to_string(at) + (onwards ? " and all after it" : ""));
      const bool happened = RunWithFault(GetParam().operation, at, onwards);
      if (!happened || HasFailure()) break;
    }
    ASSERT_FALSE(HasFailure());
    ASSERT_LT(at, most);
    EXPECT_GT(at, 1) << "the scenario has such operations";
  }
}

INSTANTIATE_TEST_SUITE_P(Every, FaultSweepTest,
                         testing::Values(Sweep{"Read", FaultyVfs::Operation::kRead},
                                         Sweep{"Write", FaultyVfs::Operation::kWrite},
                                         Sweep{"Sync", FaultyVfs::Operation::kSync},
                                         Sweep{"Truncate", FaultyVfs::Operation::kTruncate}),
                         [](const auto& sweep) { return std::string(sweep.param.name); });

// The same fault when a store that has content is opened.
TEST_F(QueueFaultsTest, AFailedReadWhileOpeningLosesNothing) {
  for (std::int64_t at = 1; at < 500; ++at) {
    SCOPED_TRACE(at);
    options.folder = folder.Path() / std::to_string(at);
    Open();
    Strings accepted;
    PushSome("a", 60, &accepted);
    service.Reset();
    FaultyVfs::FailAt(FaultyVfs::Operation::kRead, at, true);
    const bool opened = TryOpen();
    const bool happened = FaultyVfs::Failures() != 0;
    FaultyVfs::Heal();
    if (!happened) {
      EXPECT_TRUE(opened);
      EXPECT_GT(at, 5);
      return;
    }
    Open();
    EXPECT_EQ(Waiting("a"), accepted);
    ASSERT_FALSE(HasFailure());
  }
  FAIL() << "reads without end";
}

// A disk of its own that is small enough to be filled.
class FullDiskTest : public QueueFaultsTest {
 protected:
  void SetUp() override {
    options.vfs.clear();
    options.commitDelay = std::chrono::milliseconds(10);
    options.folder = folder.Path() / "disk";
    std::filesystem::create_directory(options.folder);
    if (mount("tmpfs", options.folder.c_str(), "tmpfs", 0, "size=24m") != 0) {
      GTEST_SKIP() << "this user can't mount a small tmpfs, so the full disk isn't tried";
    }
    mounted = true;
  }
  void TearDown() override {
    service.Reset();
    if (!mounted) return;
    EXPECT_EQ(umount2(options.folder.c_str(), MNT_DETACH), 0);
  }
  void FillDisk() {
    std::ofstream ballast(options.folder / "ballast", std::ios::binary | std::ios::app);
    for (std::size_t size = 65536; size > 0; size /= 2) {
      while (ballast << std::string(size, 'b') && ballast.flush()) {
      }
      ballast.clear();
    }
  }
  void FreeDisk() { std::filesystem::remove(options.folder / "ballast"); }
  std::int64_t InFile() {
    return host::SqliteConnection(StorePath(), host::SqliteConnection::Access::kReadWrite)
        .QueryInteger("SELECT count(*) FROM items WHERE queue=(SELECT id FROM queues WHERE name='a')");
  }

  bool mounted = false;
};

TEST_F(FullDiskTest, PushesAreRefusedDeliveringGoesOnAndPushingResumesByItself) {
  Open();
  Expectation expected;
  PushSome("a", 400, &expected.a);
  ASSERT_THAT(expected.a, SizeIs(400));
  FillDisk();
  PushSome("a", 3000, &expected.a);
  EXPECT_LT(expected.a.size(), 3000u) << "the disk isn't full";
  EXPECT_GT(service->Ledgers()["a"].rejected.items, 0);

  // The acknowledgements reach the file although the disk is full.
  const std::int64_t before = InFile();
  for (int visit = 0; visit < 10; ++visit) Deliver(&expected);
  EXPECT_THAT(expected.delivered, SizeIs(120));
  EXPECT_TRUE(Eventually([&] { return InFile() <= before - 100; })) << InFile();

  FreeDisk();
  EXPECT_TRUE(Eventually([&] { return PushText(*Producer("b"), "resumed") == zel::sOk; }));
  expected.b = {"resumed"};
  Open();
  Compare(expected);
}

TEST_F(FullDiskTest, AStoreOnAFullDiskOpensAndDelivers) {
  Open();
  Expectation expected;
  PushSome("a", 100, &expected.a);
  service.Reset();
  FillDisk();
  Open();
  Deliver(&expected);
  EXPECT_THAT(expected.delivered, SizeIs(12));
  service.Reset();
  FreeDisk();
  Open();
  Compare(expected);
}

}  // namespace
}  // namespace veld_report::tests
