// Age, the limit of all queues together, forgetting, and the look beside a running process.
#include <gmock/gmock.h>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class QueueLimitsTest : public StoreTest {
 protected:
  QueueLimitsTest() {
    options.nowMs = [this] { return now; };
  }
  // Whether any file of the folder has the text in it.
  bool Holds(const std::string& text) {
    for (const auto& entry : std::filesystem::directory_iterator(options.folder)) {
      if (ReadFile(entry.path()).find(text) != std::string::npos) return true;
    }
    return false;
  }

  std::int64_t now = 1'000'000;
};

TEST_F(QueueLimitsTest, TooOldItemsAreDroppedWhenTheyComeUpAndCounted) {
  options.maxAge = std::chrono::seconds(60);
  Open();
  Push("q", "old");
  now += 1;
  Push("q", "just in time");
  now += 60'000;
  EXPECT_THAT(Waiting("q"), ElementsAre("just in time"));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Ledger(),
              (QueueLedger{.accepted = {2, 15}, .evicted = {1, 3}, .waiting = {1, 12}, .expired = {1, 3}}));
    Open();
  }
}

TEST_F(QueueLimitsTest, TheLimitOfTheStoreDropsTheOldestOfTheLargestQueue) {
  options.storeLimitBytes = 20;
  Open();
  Push("large", "aaaa", "bbbb", "cccc", "dddd");
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
  EXPECT_EQ(service->TotalWaiting(), (ItemCount{4, 18}));
  ReadAll(*holder);
  const auto second = Reader("small");
  ReadAll(*second);
  EXPECT_EQ(PushText(*producer, "xxx"), zel::eOutOfSpace) << "all are held";
}

TEST_F(QueueLimitsTest, NothingOfAnItemStaysReadable) {
  const std::string secret = "a very private text";
  const std::string damaged = StorePath().string() + ".damaged-20260102T030405Z";
  Open();
  for (int i = 0; i < 50; ++i) {
    Push("q", secret + std::to_string(i));
    Push("r", secret + std::string(20'000, 'x') + secret);
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
  EXPECT_EQ(Ledger().removed.items, 30);
  Push("q", "still works");
  Open();
  EXPECT_FALSE(Holds(secret));
  EXPECT_THAT(Waiting("q"), ElementsAre("still works"));
}

TEST_F(QueueLimitsTest, AClearedQueueLeavesTheLog) {
  Open();
  Push("q", "first secret");
  Push("kept", "second secret");
  EXPECT_TRUE(service->ClearQueue("q"));
  EXPECT_FALSE(Holds("first secret"));
  EXPECT_TRUE(Holds("second secret"));
}

TEST_F(QueueLimitsTest, ALookBesideARunningProcessChangesNothing) {
  Open();
  Push("q", "first");
  host::QueueServiceOptions look = options;
  look.inspectOnly = true;
  const auto inspector = host::QueueService::Open(look);
  now += 250;
  Push("q", "second");
  now += 1000;
  const auto queues = inspector->ListQueues();
  ASSERT_EQ(queues.size(), 1u);
  EXPECT_EQ(queues[0].items, 2);
  EXPECT_EQ(queues[0].oldestAgeMs, 1250);
  const auto items = inspector->PeekItems("q", 1);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].bytes, "first");
  EXPECT_EQ(inspector->Ledgers()["q"].accepted, (ItemCount{2, 11}));

  const zel::string domain(usualDomain);
  const zel::string queue("q");
  zel::Ref<orvel::IQueueProducer> producer;
  zel::Ref<orvel::IAckConsumer> reader;
  EXPECT_EQ(inspector->CreateProducer(domain, queue, 1, producer.Out()), zel::eNotSupported);
  EXPECT_EQ(inspector->CreateAckConsumer(domain, queue, reader.Out()), zel::eNotSupported);
  EXPECT_THROW(inspector->Forget(), host::StoreError);
  EXPECT_THROW(inspector->ClearQueue("q"), host::StoreError);
  EXPECT_THAT(Waiting("q"), ElementsAre("first", "second"));
}

}  // namespace
}  // namespace veld_report::tests
