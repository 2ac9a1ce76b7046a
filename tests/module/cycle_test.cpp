// The send cycle up to the walk: the gate, the drain, eviction, and the upkeep of the queues.

#include <algorithm>
#include <functional>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

using CycleTest = SenderTest;

const char disabled[] = "Background activities disabled or network disabled by provider";

TEST_F(CycleTest, AnEmptyCycleTellsWhatItDidAndEndsTheChain) {
  Start();
  Cycle();
  EXPECT_THAT(Lines(), ElementsAre(Line("OnSendTimeout called"), Line("UpdateQueues started"),
                                   Line("0 queues will be removed"), Line("UpdateQueues finished"),
                                   Line("HandleQueueList called"), Line(noMore)));
  EXPECT_THAT(Events(), ElementsAre("Run", "DisarmTimer", "CreateQueueManager", "EnumerateQueues",
                                    "IsBackgroundDisabled", "CreateQueueManager", "EnumerateQueues"));
  Cycle();
  EXPECT_THAT(Lines(),
              ElementsAre(Line("OnSendTimeout called"), Line("HandleQueueList called"), Line(noMore)))
      << "settings are looked at once";
  EXPECT_FALSE(host.timer->Armed());
}

TEST_F(CycleTest, AClosedGateKeepsTheQueuesFedAndTheTimerGoing) {
  Start({}, true);
  script().Fail("IsBackgroundDisabled", 1);
  Send("{\"a\":1}");
  Events();
  Lines();
  Fire();
  EXPECT_THAT(Lines(), ElementsAre(Line("OnSendTimeout called"), Line(disabled), NotAllLine(1, 0)));
  EXPECT_THAT(Events(), ElementsAre("Run", "DisarmTimer", "CreateProducer 0a 10240", "Push 0a {\"a\":1}",
                                    "IsBackgroundDisabled", "ArmTimer 7000"));
  Fire();
  EXPECT_EQ(Lines().back(), Line(noMore));
  EXPECT_EQ(host.http->TakeSent().size(), 1u);
}

TEST_F(CycleTest, AGateThatClosesDuringAWalkStopsItBetweenTwoQueues) {
  Start({.urls = {urlA, urlB}, .packetLimit = 1}, true);
  PutItems('a', {"12345", "12345"});
  PutItems('b', {"12345", "12345"});
  script().Fail("IsBackgroundDisabled", 1, 3);
  host.http->Answer(HttpAnswer::Status(500));
  Cycle();
  EXPECT_EQ(host.http->TakeSent().size(), 2u) << "the first queue whole";
  const Strings lines = Lines();
  EXPECT_THAT(Strings(lines.end() - 2, lines.end()), ElementsAre(Line(disabled), NotAllLine(1, 5)));
}

// What goes wrong for one element at one row costs that element this row and those behind it, or less.
TEST_F(CycleTest, TheDrainLosesWhatItMustAndNoMore) {
  const std::string cannot = Line("QueuePendingData. Cann't insert element in the queue " + QueueName('b'));
  const auto caught = [](std::string_view rest) { return CaughtLine("QueuePendingData", rest); };
  struct Row {
    const char* what;
    std::function<void()> script;
    Strings lines;
    Strings left;  // of element "1"; of element "2" each row gets its copy
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"nothing", [] {}, {}, {"0a", "0b", "0c"}},
      {"a producer can't be made", [&] { script().Fail("CreateProducer", someCode, 2); },
       {caught(SystemError("Can not create Queue producer", someCode, "458"))}, {"0a"}},
      {"a push fails", [&] { script().Fail("Push", someCode, 2); }, {}, {"0a", "0c"}},
      {"a push throws", [&] { script().Throw("Push", 2); }, {caught("std::exception scripted")}, {"0a"}},
      {"a full queue without a reader", [&] { script().Fail("Push", zel::eOutOfSpace, 2);
       script().Fail("CreateAckConsumer", someCode); },
       {caught(SystemError("Can not create AckConsumer", someCode, "470"))}, {"0a"}},
      {"a full queue that is empty", [&] { script().Fail("Push", zel::eOutOfSpace, 2); }, {cannot},
       {"0a", "0c"}},
      {"a full queue whose reader says 1", [&] { script().Fail("Push", zel::eOutOfSpace, 2);
       script().Fail("Read", zel::sFalse); }, {cannot}, {"0a", "0c"}},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start({.urls = {urlA, urlB, urlC}});
    row.script();
    Send("1");
    Send("2");
    Send("3", "nobody");
    Lines();
    script().Fail("IsBackgroundDisabled", 1);
    Fire();
    Strings left;
    for (const char queue : {'a', 'b', 'c'}) {
      Strings items = host.queues->Items(QueueName(queue));
      if (std::erase(items, "1") == 1) left.push_back({'0', queue});
      EXPECT_THAT(items, ElementsAre("2"));
    }
    EXPECT_THAT(left, ElementsAreArray(row.left));
    const Strings lines = Lines();
    // Between "UpdateQueues finished" and the two lines of the closed gate.
    EXPECT_THAT(Strings(lines.begin() + 4, lines.end() - 2), ElementsAreArray(row.lines));
    EndRow();
  }
}

TEST_F(CycleTest, AFullQueueDropsItsOldestItems) {
  Start({.queueLimit = 1});
  script().Fail("IsBackgroundDisabled", 1, 1, Script::always);
  const std::string old(200, 'x');
  for (int i = 0; i < 5; ++i) Send(old + std::to_string(i));
  Fire();
  Send(std::string(400, 'y'));
  Events();
  Fire();
  EXPECT_THAT(Events({"CreateAck", "Read", "Ack", "Push"}),
              ElementsAre("Push 0a [400]", "CreateAckConsumer 0a", "Read 0a 1", "Ack 1", "Push 0a [400]",
                          "Read 0a 2", "Ack 2", "Push 0a [400]"));
  EXPECT_THAT(host.queues->Items(QueueName('a')),
              ElementsAre(old + "2", old + "3", old + "4", std::string(400, 'y')));
  // Larger than the limit: everything goes and it doesn't fit all the same.
  Send(std::string(1025, 'z'));
  Lines();
  Fire();
  EXPECT_THAT(host.queues->Items(QueueName('a')), IsEmpty());
  EXPECT_EQ(Lines().at(1), Line("QueuePendingData. Cann't insert element in the queue " + QueueName('a')));
  Send(std::string(1024, 'z'));
  Fire();
  EXPECT_EQ(host.queues->Items(QueueName('a')).size(), 1u) << "exactly the limit";
}

TEST_F(CycleTest, QueuesThatNoRowNamesAreRemoved) {
  for (const char queue : {'a', 'b', 'c', 'd', 'f'}) PutItems(queue, {"old"});
  // Sorts first: its byte counts as negative.
  host.queues->Put("\xff", "old");
  Start({.urls = {u"http://d", urlB}});
  script().Fail("RemoveQueue", someCode, 2);
  host.http->usual = HttpAnswer::Status(500);
  Cycle();
  EXPECT_THAT(Events({"RemoveQueue"}),
              ElementsAre("RemoveQueue \xff", "RemoveQueue 0a", "RemoveQueue 0c", "RemoveQueue 0f"));
  EXPECT_EQ(Lines().at(2), Line("4 queues will be removed"));
  EXPECT_THAT(host.queues->Items(QueueName('c')), IsEmpty()) << "one that can't be removed holds up no other";
  EXPECT_THAT(host.http->TakeSent(), testing::SizeIs(2)) << "what stays but has no row isn't read";
}

TEST_F(CycleTest, ProducersGoWithTheirQueueAndWithTheirLimit) {
  Start({.urls = {urlA, urlB, urlB, urlC}, .consumers = {"x", "x", "x", "y"}});
  const auto producers = [&] {
    const Strings alive = host.world.ledger.Alive();
    return std::count(alive.begin(), alive.end(), "Producer x1");
  };
  Send("1", "x");
  Fire();
  EXPECT_EQ(producers(), 2);
  Events();
  EXPECT_EQ(Set({.urls = {urlA, urlB, urlB, urlC}, .consumers = {"x", "x", "x", "y"}, .queueLimit = 3}), 0);
  Send("2", "y");
  Fire();
  EXPECT_THAT(Events({"CreateProducer"}), ElementsAre("CreateProducer 0a 3072", "CreateProducer 0b 3072",
                                                      "CreateProducer 0b 3072", "CreateProducer 0c 3072"));
  EXPECT_EQ(producers(), 3);
  EXPECT_EQ(Set({.urls = {urlB}, .queueLimit = 3}), zel::sOk);
  script().Fail("RemoveQueue", someCode);
  Fire();
  EXPECT_EQ(producers(), 1);
}

TEST_F(CycleTest, UpkeepThatFailsIsNotRepeated) {
  const std::string started = Line("UpdateQueues started");
  const std::string finished = Line("UpdateQueues finished");
  const std::string walk = Line("HandleQueueList called");
  struct Row {
    const char* what;
    std::function<void()> script;
    Strings lines;  // between the first line and the last
    Strings removed;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"a producer can't be made", [&] { script().Fail("CreateProducer", someCode); }, {started,
       CaughtLine("OnSendTimeout", SystemError("Can not create Queue producer", someCode, "405"))}, {}},
      {"no manager", [&] { script().Fail("CreateQueueManager", someCode); }, {started,
       Line("0 queues will be removed"), finished, walk}, {}},
      {"the names come with a failure", [&] { script().Fail("EnumerateQueues", someCode); }, {started,
       Line("1 queues will be removed"), finished, walk}, {"RemoveQueue 0f"}},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start();
    Send("1");
    Fire();
    PutItems('f', {"old"});
    EXPECT_EQ(Set({.queueLimit = 3}), zel::sOk);
    row.script();
    Lines();
    Events();
    Fire();
    const Strings lines = Lines();
    EXPECT_EQ(lines.back(), Line(noMore));
    EXPECT_THAT(Strings(lines.begin() + 1, lines.end() - 1), ElementsAreArray(row.lines));
    EXPECT_THAT(Events({"RemoveQueue"}), ElementsAreArray(row.removed));
    Cycle();
    EXPECT_EQ(Lines().at(1), walk);
    EndRow();
  }
}

}  // namespace
}  // namespace veld_report::tests
