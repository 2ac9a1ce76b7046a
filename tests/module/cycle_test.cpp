// The send cycle up to the walk: the gate, the drain, eviction, and the upkeep of the queues.

#include <functional>
#include <new>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

using CycleTest = SenderTest;

const char disabled[] = "Background activities disabled or network disabled by provider";
const char noMore[] = "Threre are no more data to send. Timer for sending was cancelled";

std::string NotAll(std::uint32_t needToSend, std::uint32_t sent) {
  return Line("Not all data were sent. NeedToSend size = " + std::to_string(needToSend) +
              ". Sended size = " + std::to_string(sent));
}

int Producers(fakes::FakeWorld& world) {
  int count = 0;
  for (const std::string& name : world.ledger.Alive()) count += name == "Producer x1";
  return count;
}

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
  Start();
  script().Fail("IsBackgroundDisabled", 1, 1, 2);
  Send("{\"a\":1}");
  Events();
  Lines();
  Fire();
  EXPECT_THAT(Lines(), ElementsAre(Line("OnSendTimeout called"), Line("UpdateQueues started"),
                                   Line("0 queues will be removed"), Line("UpdateQueues finished"),
                                   Line(disabled), NotAll(1, 0)));
  EXPECT_THAT(Events(), ElementsAre("Run", "DisarmTimer", "CreateQueueManager", "EnumerateQueues",
                                    "CreateProducer 0a 10240", "Push 0a {\"a\":1}", "IsBackgroundDisabled",
                                    "ArmTimer 7000"));
  Fire();
  EXPECT_THAT(Lines(), ElementsAre(Line("OnSendTimeout called"), Line(disabled), NotAll(1, 0)));
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
  Strings lines = Lines();
  EXPECT_THAT(Strings(lines.end() - 2, lines.end()), ElementsAre(Line(disabled), NotAll(1, 5)));
  EXPECT_EQ(host.timer->DelayMs(), 7000u);
}

// The copy of the table stands outside the guard.
TEST_F(CycleTest, ATableThatCannotBeCopiedEndsTheCycleAndNothingElse) {
  Start({}, true);
  Nudge();
  Lines();
  host.allocator->FailNth(1);
  Fire();
  EXPECT_EQ(host.timer->RunsThatThrew(), 1);
  EXPECT_THAT(Lines(), ElementsAre(Line("OnSendTimeout called")));
  EXPECT_FALSE(host.timer->Armed());
  Send("{}");
  Fire();
  EXPECT_EQ(host.http->TakeSent().size(), 1u);
}

TEST_F(CycleTest, ZeroBytesThatWereRefusedDoNotArmTheTimer) {
  Start();
  host.http->usual = HttpAnswer::Status(500);
  Send("");
  Fire();
  EXPECT_EQ(host.http->TakeSent().size(), 1u);
  EXPECT_EQ(Lines().back(), Line(noMore));
  EXPECT_FALSE(host.timer->Armed());
}

// What goes wrong for one element at one row costs that element this row and those behind it, or less.
TEST_F(CycleTest, TheDrainLosesWhatItMustAndNoMore) {
  const std::string cannot = Line("QueuePendingData. Cann't insert element in the queue " + QueueName('b'));
  struct Row {
    const char* what;
    std::function<void()> script;
    Strings lines;
    Strings arrivals;  // "queue item" of what stands in the queues
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"nothing", [] {}, {}, {"a 1", "b 1", "c 1", "a 2", "b 2", "c 2"}},
      {"a producer can't be made", [&] { script().Fail("CreateProducer", someCode, 2); },
       {CaughtLine("QueuePendingData", SystemError("Can not create Queue producer", someCode, "458"))},
       {"a 1", "a 2", "b 2", "c 2"}},
      {"a push fails", [&] { script().Fail("Push", someCode, 2); }, {}, {"a 1", "c 1", "a 2", "b 2", "c 2"}},
      {"a push throws", [&] { script().Throw("Push", 2); }, {CaughtLine("QueuePendingData",
       "std::exception scripted")}, {"a 1", "a 2", "b 2", "c 2"}},
      {"a full queue without a reader", [&] { script().Fail("Push", zel::eOutOfSpace, 2);
       script().Fail("CreateAckConsumer", someCode); }, {CaughtLine("QueuePendingData",
       SystemError("Can not create AckConsumer", someCode, "470"))}, {"a 1", "a 2", "b 2", "c 2"}},
      {"a full queue that can't be emptied", [&] { script().Fail("Push", zel::eOutOfSpace, 2); }, {cannot},
       {"a 1", "c 1", "a 2", "b 2", "c 2"}},
      {"a full queue that says 1", [&] { script().Fail("Push", zel::eOutOfSpace, 5); script().Fail("Read",
       zel::sFalse); }, {cannot}, {"a 1", "b 1", "c 1", "a 2", "c 2"}},
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
    Events();
    script().Fail("IsBackgroundDisabled", 1);
    Fire();
    Strings arrivals;
    for (const char* item : {"1", "2"}) {
      for (const char queue : {'a', 'b', 'c'}) {
        const Strings items = host.queues->Items(QueueName(queue));
        if (std::count(items.begin(), items.end(), item)) arrivals.push_back(std::string{queue, ' '} + item);
      }
    }
    EXPECT_THAT(arrivals, ElementsAreArray(row.arrivals));
    const Strings lines = Lines();
    // Between "UpdateQueues finished" and the two lines of the closed gate.
    EXPECT_THAT(Strings(lines.begin() + 4, lines.end() - 2), ElementsAreArray(row.lines));
    End();
    script().Clear();
    host.queues->Clear();
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
  // Once there is room, whatever Push says ends it.
  Send(std::string(300, 'z'));
  script().Fail("Push", someCode, 2);
  Events();
  Fire();
  EXPECT_THAT(Events({"Read", "Push"}), ElementsAre("Push 0a [300]", "Read 0a 3", "Push 0a [300]"));
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

TEST_F(CycleTest, TheLimitInBytesWraps) {
  Start({.queueLimit = 4194305});
  Send("1");
  Fire();
  EXPECT_THAT(Events({"CreateProducer"}), ElementsAre("CreateProducer 0a 1024"));
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
  EXPECT_THAT(host.queues->Names(), ElementsAre(QueueName('a'), QueueName('b'), QueueName('d')));
  EXPECT_THAT(host.http->TakeSent(), testing::SizeIs(2)) << "what stays but has no row isn't read";
}

TEST_F(CycleTest, ARemovedQueueLosesItsProducer) {
  Start({.urls = {urlA, urlB}});
  Send("1");
  Fire();
  EXPECT_EQ(Producers(host.world), 2);
  EXPECT_EQ(Set({.urls = {urlB}}), zel::sOk);
  script().Fail("RemoveQueue", someCode);
  Fire();
  EXPECT_EQ(Producers(host.world), 1);
  EXPECT_EQ(Set({.urls = {urlA}, .packetLimit = 9}), zel::sOk);
  Send("2");
  Events();
  Fire();
  EXPECT_THAT(Events({"CreateProducer"}), ElementsAre("CreateProducer 0a 10240"));
  EXPECT_EQ(Producers(host.world), 1);
}

TEST_F(CycleTest, ANewLimitReplacesTheProducersThatThereAre) {
  Start({.urls = {urlA, urlB, urlB, urlC}, .consumers = {"x", "x", "x", "y"}});
  Send("1", "x");
  Fire();
  EXPECT_EQ(Producers(host.world), 2);
  Events();
  EXPECT_EQ(Set({.urls = {urlA, urlB, urlB, urlC}, .consumers = {"x", "x", "x", "y"}, .queueLimit = 3}), 0);
  Send("2", "y");
  Fire();
  EXPECT_THAT(Events({"CreateProducer", "CreateQueueManager"}),
              ElementsAre("CreateProducer 0a 3072", "CreateProducer 0b 3072", "CreateProducer 0b 3072",
                          "CreateQueueManager", "CreateProducer 0c 3072", "CreateQueueManager"));
  EXPECT_EQ(Producers(host.world), 3);
}

TEST_F(CycleTest, UpkeepThatFails) {
  const std::string started = Line("UpdateQueues started");
  const std::string finished = Line("UpdateQueues finished");
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
       Line("0 queues will be removed"), finished, Line("HandleQueueList called")}, {}},
      {"the names come with a failure", [&] { script().Fail("EnumerateQueues", someCode); }, {started,
       Line("1 queues will be removed"), finished, Line("HandleQueueList called")}, {"RemoveQueue 0f"}},
      {"the host throws", [&] { script().Throw("EnumerateQueues"); }, {started, CaughtLine("OnSendTimeout",
       "std::exception scripted")}, {}},
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
    Strings lines = Lines();
    EXPECT_EQ(lines.front(), Line("OnSendTimeout called"));
    EXPECT_EQ(lines.back(), Line(noMore));
    EXPECT_THAT(Strings(lines.begin() + 1, lines.end() - 1), ElementsAreArray(row.lines));
    EXPECT_THAT(Events({"RemoveQueue", "ArmTimer"}), ElementsAreArray(row.removed));
    script().Clear();
    Cycle();
    EXPECT_EQ(Lines().at(1), Line("HandleQueueList called")) << "it isn't repeated";
    End();
    host.queues->Clear();
  }
}

}  // namespace
}  // namespace veld_report::tests
