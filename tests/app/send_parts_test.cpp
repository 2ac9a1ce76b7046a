// What send is made of, without a module.
#include <gtest/gtest.h>

#include "apps/veldrep/queue_room.h"
#include "apps/veldrep/text.h"

namespace veld_report::app {
namespace {

TEST(QueueRoom, QueueNeverHasToDropItsOwnItems) {
  Ledgers ledgers;
  ledgers["q"].accepted = {51, 5040};  // 50 of them in an earlier run
  ledgers["q"].waiting = {1, 40};
  QueueRoom room(100, {{"q", 1}}, ledgers);
  room.Submitted(40);
  EXPECT_FALSE(room.Has(21));
  room.Refresh(ledgers);
  EXPECT_FALSE(room.Has(21));
  EXPECT_EQ(room.ItemsInMemory(), 1);
  ledgers["q"].accepted += {1, 40};
  ledgers["q"].waiting += {1, 40};
  room.Refresh(ledgers);
  EXPECT_FALSE(room.Has(21));
  EXPECT_TRUE(room.Has(20));
  EXPECT_EQ(room.ItemsInMemory(), 0);
  ledgers["q"].Leave(&QueueLedger::delivered, {1, 40});
  room.Refresh(ledgers);
  EXPECT_TRUE(room.Has(60));
  EXPECT_FALSE(room.Has(61));
}

TEST(QueueRoom, FullestQueueAndDoubledRowsDecide) {
  Ledgers ledgers;
  ledgers["a"].waiting = {1, 90};
  const QueueRoom room(100, {{"a", 1}, {"b", 3}}, ledgers);
  EXPECT_TRUE(room.Has(10));
  EXPECT_FALSE(room.Has(11));
  EXPECT_TRUE(room.CanEverFit(33));
  EXPECT_FALSE(room.CanEverFit(34));
}

TEST(Text, JsonStringsAndDurations) {
  EXPECT_EQ(JsonString("a\"\\\n\x01é\xff"), "\"a\\\"\\\\\\u000a\\u0001é\xef\xbf\xbd\"");
  EXPECT_EQ(Duration(999), "999 ms");
  EXPECT_EQ(Duration(1500), "1.5 s");
  EXPECT_EQ(Duration(61'000), "1 min 1 s");
  EXPECT_EQ(Duration(7'260'000), "2 h 1 min");
  EXPECT_EQ(Duration(90'000'000), "1 d 1 h");
}

}  // namespace
}  // namespace veld_report::app
