// How a pacer and the end of a packet limit what readers hand out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

class FakePacer final : public host::DeliveryPacer {
 public:
  bool MayDeliver(const std::string& queueName) override { return queueName != "held"; }
  std::uint64_t PacketLimitBytes() const override { return 2; }
  void OnMoreWaits(const std::string& queueName, bool delivered) override {
    calls.push_back(queueName + (delivered ? " delivered" : " returned"));
  }
  Strings calls;
};

class QueuePacing : public StoreTest {
 protected:
  void SetUp() override {
    options.pacer = pacer;
    Open();
  }
  const std::shared_ptr<FakePacer> pacer = std::make_shared<FakePacer>();
};

Strings BytesOf(const std::vector<ReadItem>& items) {
  Strings texts;
  for (const ReadItem& item : items) texts.push_back(item.bytes);
  return texts;
}

TEST_F(QueuePacing, OnePacketIsOnTheWayAtATime) {
  Push("q", "1", "2", "3", "4567");
  const auto first = Reader("q");
  const auto held = ReadAll(*first);
  EXPECT_EQ(BytesOf(held), (Strings{"1", "2"}));
  EXPECT_EQ(ReadAll(*Reader("q")).size(), 0u) << "the first packet may still be answered";
  first->Ack(&held[0].token);
  EXPECT_EQ(pacer->calls, Strings{});
  first->Ack(&held[1].token);
  EXPECT_EQ(pacer->calls, Strings{"q delivered"});
  EXPECT_EQ(ReadAll(*first).size(), 0u) << "an exhausted reader stays exhausted";

  const auto second = Reader("q");
  const auto refused = ReadAll(*second);
  EXPECT_EQ(BytesOf(refused), Strings{"3"});
  second->ReturnItem(&refused[0].token);
  EXPECT_EQ(ReadAll(*second).size(), 0u) << "the next packet wouldn't be accepted either";
  EXPECT_EQ(pacer->calls, Strings{"q delivered"}) << "who is refused doesn't come again at once";

  const auto late = Reader("q");
  const auto item = ReadOne(*late);
  ASSERT_TRUE(item);
  EXPECT_FALSE(ReadOne(*Reader("q")));
  late->ReturnItem(&item->token);
  EXPECT_EQ(pacer->calls, (Strings{"q delivered", "q returned"}));
}

TEST_F(QueuePacing, AHeldQueueStillMakesRoom) {
  const auto producer = Producer("held", 2);
  EXPECT_EQ(PushText(*producer, "1"), zel::sOk);
  EXPECT_EQ(PushText(*producer, "2"), zel::sOk);
  EXPECT_FALSE(ReadOne(*Reader("held")));
  ASSERT_EQ(PushText(*producer, "34"), zel::eOutOfSpace);
  const auto room = Reader("held");
  for (const ReadItem& item : ReadAll(*room)) room->Ack(&item.token);
  EXPECT_EQ(PushText(*producer, "34"), zel::sOk);
  EXPECT_EQ(service->Ledgers().at("held").evicted.items, 2);
}

}  // namespace
}  // namespace veld_report::tests
