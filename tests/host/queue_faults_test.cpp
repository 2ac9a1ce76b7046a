// Every operation of the store's file system failing, one after the other, and a disk that is full.
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <iostream>
#include <set>

#include "tests/host/faulty_vfs.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

class QueueFaultsTest : public StoreTest {
 protected:
  // What a store must hold in the end: what it has answered 0 to, and nothing else.
  struct Expectation {
    Strings a;
    Strings b;
    std::set<std::string> delivered;  // of a
  };

  QueueFaultsTest() {
    FaultyVfs::Register();
    options.vfs = FaultyVfs::name;
    options.commitOperations = 8;
    options.syncEveryCommit = true;
    // Short, so that pushes are tried again soon after a failure.
    options.commitDelay = std::chrono::milliseconds(2);
  }
  ~QueueFaultsTest() override { FaultyVfs::Heal(); }

  void PushSome(const char* queue, int count, Strings* accepted) {
    const auto producer = Producer(queue);
    for (int i = 0; i < count; ++i) {
      const std::string text = queue + std::to_string(number++) + std::string(400, '.');
      const zel::ResultCode answer = PushText(*producer, text);
      EXPECT_NE(answer, zel::eOutOfSpace);
      if (answer == zel::sOk) accepted->push_back(text);
    }
  }
  // A visit that acknowledges 12 items and gives 3 back.
  void Deliver() {
    const auto reader = Reader("a");
    const auto items = ReadAll(*reader, 15);
    for (std::size_t i = 0; i < items.size(); ++i) {
      EXPECT_FALSE(expected.delivered.contains(items[i].bytes)) << "read after it was acknowledged";
      EXPECT_EQ(i < 12 ? reader->Ack(&items[i].token) : reader->ReturnItem(&items[i].token), zel::sOk);
      if (i < 12) expected.delivered.insert(items[i].bytes);
    }
  }
  void Compare() {
    Strings rest;
    for (const std::string& text : expected.a) {
      if (!expected.delivered.contains(text)) rest.push_back(text);
    }
    EXPECT_EQ(Waiting("a"), rest);
    EXPECT_EQ(Waiting("b"), expected.b);
    EXPECT_THAT(Waiting("c"), IsEmpty());
    for (const char* queue : {"a", "b", "c"}) EXPECT_EQ(Ledger(queue).damaged.items, 0);
    EXPECT_EQ(Ledger("a").delivered.items, static_cast<std::int64_t>(expected.delivered.size()));
  }

  Expectation expected;
  int number = 0;
};

class FaultSweepTest : public QueueFaultsTest, public testing::WithParamInterface<FaultyVfs::Operation> {
 protected:
  // Two queues filled, one delivered from in two visits, the other removed and filled again, one cleared.
  void RunScenario() {
    zel::Ref<orvel::IQueueManager> manager;
    service->CreateQueueManager(zel::string(usualDomain), manager.Out());  // may fail to make the file, once
    PushSome("a", 30, &expected.a);
    PushSome("b", 10, &expected.b);
    Deliver();
    if (Manager()->RemoveQueue(zel::string("b")) == zel::sOk) expected.b.clear();
    PushSome("b", 5, &expected.b);
    Strings forgotten;
    PushSome("c", 5, &forgotten);
    try {
      service->ClearQueue("c");
    } catch (const host::StoreError&) {
      // Its items are gone all the same; that they may be readable is what it has said.
    }
    Deliver();
  }
  // On a new store, or with `onwards` on one that has content. Returns whether the failure happened at all.
  bool RunWithFault(std::int64_t at, bool onwards) {
    options.folder = folder.Path() / (std::to_string(at) + (onwards ? " onwards" : " alone"));
    expected = {};
    if (onwards) {
      Open();
      PushSome("a", 60, &expected.a);
      service.Reset();
    }
    FaultyVfs::FailAt(GetParam(), at, onwards);
    try {
      Open();
    } catch (const host::StoreError&) {
      FaultyVfs::Heal();
      Open();
    }
    RunScenario();
    if (onwards) FaultyVfs::Heal();
    EXPECT_TRUE(service->Commit()) << "goes on by itself when the fault is over";
    service.Reset();
    FaultyVfs::Heal();
    Open();
    Compare();
    EXPECT_THAT(Findings(), IsEmpty());
    std::filesystem::remove_all(options.folder);
    return FaultyVfs::failures != 0;
  }
};

TEST_P(FaultSweepTest, NothingThatWasAcceptedIsLostAndNothingDeliveredComesBack) {
  for (const bool onwards : {false, true}) {
    std::int64_t at = 1;
    while (RunWithFault(at, onwards)) {
      ASSERT_FALSE(HasFailure()) << at << (onwards ? " and all after it" : "");
      ASSERT_LT(++at, 2000);
    }
    std::cout << at - 1 << " operations failed" << (onwards ? ", with all behind them" : ", each alone")
              << std::endl;
    RecordProperty(onwards ? "failed_onwards" : "failed_alone", static_cast<int>(at - 1));
    // Only a store that is made deletes anything.
    EXPECT_TRUE(at > 1 || (onwards && GetParam() == FaultyVfs::Operation::kDelete)) << "there are none";
  }
}

std::string OperationName(const testing::TestParamInfo<FaultyVfs::Operation>& operation) {
  static constexpr const char* names[] = {"None",   "Read",   "Write",    "Sync", "Truncate", "Open",
                                          "Delete", "Access", "FileSize", "Lock", "ShmMap",   "ShmLock"};
  return names[static_cast<int>(operation.param)];
}
using enum FaultyVfs::Operation;
INSTANTIATE_TEST_SUITE_P(, FaultSweepTest,
                         testing::Values(read, kWrite, kSync, kTruncate, kOpen, kDelete, kAccess, kFileSize,
                                         kLock, kShmMap, kShmLock),
                         OperationName);

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
    EXPECT_TRUE(!mounted || umount2(options.folder.c_str(), MNT_DETACH) == 0);
  }

  bool mounted = false;
};

TEST_F(FullDiskTest, PushesAreRefusedDeliveringGoesOnAndPushingResumesByItself) {
  const auto ballast = options.folder / "ballast";
  Open();
  PushSome("a", 400, &expected.a);
  ASSERT_THAT(expected.a, SizeIs(400));
  std::ofstream stream(ballast, std::ios::binary);
  for (std::size_t size = 65536; size > 0; size /= 2) {
    while (stream << std::string(size, 'b') && stream.flush()) {
    }
    stream.clear();
  }
  stream.close();
  PushSome("a", 3000, &expected.a);
  EXPECT_LT(expected.a.size(), 3000u) << "the disk isn't full";
  EXPECT_GT(Ledger("a").rejected.items, 0);

  for (int visit = 0; visit < 10; ++visit) Deliver();
  EXPECT_THAT(expected.delivered, SizeIs(120));
  EXPECT_TRUE(Eventually([&] { return service->Commit(); })) << "the acknowledgements reach the file";
  Open();
  Deliver();
  EXPECT_THAT(expected.delivered, SizeIs(132)) << "after a start on the full disk";

  std::filesystem::remove(ballast);
  EXPECT_TRUE(Eventually([&] { return PushText(*Producer("b"), "resumed") == zel::sOk; }));
  expected.b = {"resumed"};
  Open();
  Compare();
}

}  // namespace
}  // namespace veld_report::tests
