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

  const zel::string name(usualDomain);
  zel::Ref<orvel::IQueueProducer> producer;
  zel::Ref<orvel::IAckConsumer> reader;
  EXPECT_EQ(inspector->CreateProducer(name, zel::string("q"), 1, producer.Out()), zel::eNotSupported);
  EXPECT_EQ(inspector->CreateAckConsumer(name, zel::string("q"), reader.Out()), zel::eNotSupported);
  EXPECT_THROW(inspector->Forget(), host::StoreError);
  EXPECT_THROW(inspector->ClearQueue("q"), host::StoreError);
  EXPECT_THAT(Waiting("q"), ElementsAre("first", "second"));
}

}  // namespace
}  // namespace veld_report::tests
