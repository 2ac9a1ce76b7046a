// Age, the limit of all queues together, forgetting, and the look beside a running process.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using host::ItemCount;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class QueueLimitsTest : public StoreTest {
 protected:
  host::QueueLedger Ledger(const char* queue) {
    const host::QueueLedger ledger = service->Ledgers()[queue];
    EXPECT_TRUE(ledger.IsBalanced()) << testing::PrintToString(ledger);
    return ledger;
  }
};

TEST_F(QueueLimitsTest, ItemsThatAreTooOldAreDroppedWhenTheyComeUpAndCounted) {
  std::int64_t now = 1'000'000;
  options.nowMs = [&] { return now; };
  options.maxAge = std::chrono::seconds(60);
  Open();
  Push("q", "old");
  now += 1;
  Push("q", "just in time");
  now += 60'000;
  Push("q", "new");
  EXPECT_THAT(Waiting("q"), ElementsAre("just in time", "new"));
  for (int i = 0; i < 2; ++i) {
    const auto ledger = Ledger("q");
    EXPECT_EQ(ledger.expired, (ItemCount{1, 3}));
    EXPECT_EQ(ledger.evicted, (ItemCount{1, 3}));
    EXPECT_EQ(ledger.waiting, (ItemCount{2, 15}));
    Open();
  }
  options.maxAge = {};
  now += 1'000'000'000;
  Open();
  EXPECT_THAT(Waiting("q"), ElementsAre("just in time", "new"));
}

TEST_F(QueueLimitsTest, TheLimitOfTheStoreDropsTheOldestOfTheLargestQueue) {
  options.storeLimitBytes = 20;
  Open();
  for (const char* text : {"aaaa", "bbbb", "cccc", "dddd"}) Push("large", text);
  Push("small", "ssss");
  const auto producer = Producer("small");
  const auto holder = Reader("large");
  ASSERT_TRUE(ReadOne(*holder));  // what is held isn't dropped
  EXPECT_EQ(PushText(*producer, "tttttt"), zel::sOk);
  EXPECT_THAT(Waiting("large"), ElementsAre("dddd"));
  EXPECT_THAT(Waiting("small"), ElementsAre("ssss", "tttttt"));
  EXPECT_EQ(Ledger("large").evicted, (ItemCount{2, 8}));
  EXPECT_EQ(PushText(*producer, std::string(21, 'x')), zel::eOutOfSpace);
  EXPECT_EQ(Ledger("small").rejected, (ItemCount{1, 21}));
  EXPECT_LE(service->TotalWaiting().bytes, 20);
}

TEST_F(QueueLimitsTest, AFullStoreOfHeldItemsRefuses) {
  options.storeLimitBytes = 8;
  Open();
  Push("q", "aaaa");
  Push("q", "bbbb");
  const auto holder = Reader("q");
  ASSERT_EQ(ReadAll(*holder).size(), 2u);
  EXPECT_EQ(PushText(*Producer("r"), "c"), zel::eOutOfSpace);
  EXPECT_EQ(service->TotalWaiting(), (ItemCount{2, 8}));
}

class ForgettingTest : public QueueLimitsTest {
 protected:
  // Whether any file of the folder has the text in it.
  bool Holds(const std::string& text) {
    for (const auto& entry : std::filesystem::directory_iterator(options.folder)) {
      std::ifstream stream(entry.path(), std::ios::binary);
      const std::string content{std::istreambuf_iterator<char>(stream), {}};
      if (content.find(text) != std::string::npos) return true;
    }
    return false;
  }
};

TEST_F(ForgettingTest, NothingOfAnItemStaysReadable) {
  const std::string secret = "a very private text";
  const std::string large = secret + std::string(20'000, 'x') + secret;
  const std::string damaged = StorePath().string() + ".damaged-20260102T030405Z";
  Open();
  for (int i = 0; i < 50; ++i) {
    Push("q", secret + std::to_string(i));
    Push("r", large);
  }
  EXPECT_TRUE(Holds(secret));
  std::ofstream(damaged) << secret;
  std::ofstream(damaged + "-wal") << secret;
  {
    const auto reader = Reader("q");
    for (const ReadItem& item : ReadAll(*reader, 20)) reader->Ack(&item.token);
  }
  service->Forget();
  EXPECT_FALSE(Holds(secret)) << "with the store open";
  EXPECT_FALSE(std::filesystem::exists(damaged));
  EXPECT_THAT(service->ListQueues(), IsEmpty());
  EXPECT_EQ(Ledger("q").removed.items, 30);
  Push("q", "still works");
  Open();
  EXPECT_FALSE(Holds(secret));
  EXPECT_THAT(Waiting("q"), ElementsAre("still works"));
}

TEST_F(ForgettingTest, AClearedQueueLeavesTheLog) {
  Open();
  Push("q", "first secret");
  Push("kept", "second secret");
  EXPECT_TRUE(service->ClearQueue("q"));
  EXPECT_FALSE(Holds("first secret"));
  EXPECT_TRUE(Holds("second secret"));
}

TEST_F(QueueLimitsTest, ALookBesideARunningProcessChangesNothing) {
  Open();
  Push("q", "waiting");
  host::QueueServiceOptions look = options;
  look.inspectOnly = true;
  const auto inspector = host::QueueService::Open(look);
  EXPECT_EQ(inspector->TotalWaiting(), (ItemCount{1, 7}));
  Push("q", "second");
  EXPECT_EQ(inspector->ListQueues()[0].items, 2);
  EXPECT_EQ(inspector->PeekItems("q", 1)[0].bytes, "waiting");
  EXPECT_EQ(inspector->Ledgers()["q"].accepted, (ItemCount{2, 13}));
  zel::Ref<orvel::IQueueProducer> producer;
  zel::Ref<orvel::IAckConsumer> reader;
  zel::Ref<orvel::IQueueManager> manager;
  const zel::string domain("veld_rep");
  const zel::string queue("q");
  EXPECT_EQ(inspector->CreateProducer(domain, queue, 1, producer.Out()), zel::eNotSupported);
  EXPECT_EQ(inspector->CreateAckConsumer(domain, queue, reader.Out()), zel::eNotSupported);
  ASSERT_EQ(inspector->CreateQueueManager(domain, manager.Out()), zel::sOk);
  EXPECT_EQ(manager->RemoveQueue(queue), zel::eNotSupported);
  EXPECT_THROW(inspector->Forget(), host::StoreError);
  EXPECT_THROW(inspector->ClearQueue("q"), host::StoreError);
  EXPECT_THAT(Waiting("q"), ElementsAre("waiting", "second"));

  look.folder = folder.Path() / "none";
  EXPECT_THROW(host::QueueService::Open(look), host::StoreError);
  EXPECT_FALSE(std::filesystem::exists(look.folder));
}

}  // namespace
}  // namespace veld_report::tests
