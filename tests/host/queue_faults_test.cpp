// Every operation of the store's file system failing, one after the other, and a disk that is full.
#include <gmock/gmock.h>

#include <iostream>

#include "tests/common/small_disk.h"
#include "tests/host/faulty_vfs.h"
#include "tests/host/queue_test_tools.h"
#include "tests/host/store_model.h"

namespace veld_report::tests {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

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

  void PushSome(const char* queue, int count) {
    const auto producer = Producer(queue);
    for (int i = 0; i < count; ++i) {
      const std::string text = queue + std::to_string(number++) + std::string(400, '.');
      const zel::ResultCode answer = PushText(*producer, text);
      EXPECT_NE(answer, zel::eOutOfSpace);
      model.Pushed(queue, text, answer);
    }
  }
  // A visit that acknowledges 12 items and gives 3 back.
  void Deliver() {
    model.Visit("a", *Reader("a"), 15,
                [](std::size_t i) { return i < 12 ? Fate::acknowledged : Fate::givenBack; });
  }
  // What was answered 0 stands there in its order, nothing else does, and nothing counts as damaged. A
  // failure may keep the store from booking what it refused.
  void Compare() {
    const StoreModel found = StoreModel::Of(*service);
    for (const char* queue : {"a", "b", "c"}) {
      EXPECT_EQ(found.Items(queue), model.Items(queue)) << queue;
      EXPECT_EQ(Ledger(queue).damaged.items, 0);
      EXPECT_EQ(Ledger(queue).delivered, model.Ledger(queue).delivered) << queue;
    }
  }

  StoreModel model;
  int number = 0;
};

class FaultSweepTest : public QueueFaultsTest, public testing::WithParamInterface<FaultyVfs::Operation> {
 protected:
  // Two queues filled, one delivered from in two visits, the other removed and filled again, one cleared.
  void RunScenario() {
    zel::Ref<orvel::IQueueManager> manager;
    service->CreateQueueManager(zel::string(usualDomain), manager.Out());  // may fail to make the file, once
    PushSome("a", 30);
    PushSome("b", 10);
    Deliver();
    if (Manager()->RemoveQueue(zel::string("b")) == zel::sOk) model.Removed("b");
    PushSome("b", 5);
    PushSome("c", 5);
    try {
      service->ClearQueue("c");
    } catch (const host::StoreError&) {
      // Its items are gone all the same; that they may be readable is what it has said.
    }
    model.Removed("c");
    Deliver();
  }
  // On a new store, or with `onwards` on one that has content. Returns whether the failure happened at all.
  bool RunWithFault(std::int64_t at, bool onwards) {
    options.folder = folder.Path() / (std::to_string(at) + (onwards ? " onwards" : " alone"));
    model = {};
    if (onwards) {
      Open();
      PushSome("a", 60);
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

TEST_P(FaultSweepTest, NothingAcceptedIsLostNothingDeliveredComesBack) {
  for (const bool onwards : {false, true}) {
    std::int64_t at = 1;
    while (RunWithFault(at, onwards)) {
      ASSERT_FALSE(HasFailure()) << at << (onwards ? " and all after it" : "");
      ASSERT_LT(++at, 2000);
    }
    std::cout << at - 1 << " operations failed" << (onwards ? ", with all after them" : ", each alone")
              << std::endl;
    // Only a store that is made deletes anything.
    EXPECT_TRUE(at > 1 || (onwards && GetParam() == FaultyVfs::Operation::remove)) << "there are none";
  }
}

using enum FaultyVfs::Operation;
INSTANTIATE_TEST_SUITE_P(, FaultSweepTest,
                         testing::Values(read, write, sync, truncate, open, remove, access, size, lock, map,
                                         shmLock));

class FullDiskTest : public QueueFaultsTest {
 protected:
  void SetUp() override {
    if (!disk.IsMounted())
      GTEST_SKIP() << "this user can't mount a small tmpfs, so the full disk isn't tried";
    options.vfs.clear();
    options.commitDelay = std::chrono::milliseconds(10);
    options.folder = folder.Path() / "disk/store";
    Open();
  }
  void TearDown() override { service.Reset(); }

  const SmallDisk disk{folder.Path() / "disk", "24m"};
};

TEST_F(FullDiskTest, AFullDiskRefusesPushesAndDeliveryGoesOn) {
  PushSome("a", 400);
  ASSERT_THAT(model.Items("a"), SizeIs(400));
  disk.FillButFor(0);
  PushSome("a", 3000);
  EXPECT_LT(model.Items("a").size(), 3000u) << "the disk isn't full";
  EXPECT_GT(Ledger("a").rejected.items, 0);

  for (int visit = 0; visit < 10; ++visit) Deliver();
  EXPECT_EQ(model.Ledger("a").delivered.items, 120);
  EXPECT_TRUE(Eventually([&] { return service->Commit(); })) << "the acknowledgements reach the file";
  Open();
  Deliver();
  EXPECT_EQ(model.Ledger("a").delivered.items, 132) << "after a start on the full disk";

  disk.MakeRoom();
  EXPECT_TRUE(Eventually([&] { return PushText(*Producer("b"), "resumed") == zel::sOk; }));
  model.Pushed("b", "resumed", zel::sOk);
  Open();
  Compare();
}

TEST_F(FullDiskTest, WhatIsLostAtTheEndIsInTheLedger) {
  options.commitOperations = 1000;
  options.commitDelay = std::chrono::seconds(60);
  Open();
  {
    const auto producer = Producer("a");
    ASSERT_EQ(PushText(*producer, "kept"), zel::sOk);
    ASSERT_TRUE(service->Commit());
    disk.FillButFor(0);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(PushText(*producer, std::string(100'000, 'a')), zel::sOk);
  }
  Open();
  EXPECT_EQ(Ledger("a"),
            (QueueLedger{.accepted = {3, 200'004}, .rejected = {2, 200'000}, .waiting = {1, 4}}));
}

TEST_F(FullDiskTest, PushingResumesWithRoomInsideTheFile) {
  options.commitOperations = 1000;
  Open();
  {
    const auto producer = Producer("a");
    for (int i = 0; i < 120; ++i) ASSERT_EQ(PushText(*producer, std::string(100'000, 'a')), zel::sOk);
  }
  ASSERT_TRUE(service->Commit());
  disk.FillButFor(0);
  {
    const auto producer = Producer("b");
    ASSERT_TRUE(Eventually([&] { return PushText(*producer, std::string(1000, 'b')) != zel::sOk; }));
    // So many at once that their deletion takes more than the reserve.
    const auto reader = Reader("a");
    for (const ReadItem& item : ReadAll(*reader, 120)) EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
    EXPECT_TRUE(Eventually([&] { return PushText(*producer, "resumed") == zel::sOk; }));
  }
  Open();
  EXPECT_EQ(Ledger("a").delivered.items, 120);
  EXPECT_THAT(Findings(), IsEmpty());
}

}  // namespace
}  // namespace veld_report::tests
