// The walk over the queues: order of calls, packets, the fate of items, and what ends a walk.

#include <cstdlib>
#include <functional>
#include <new>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

using WalkTest = SenderTest;

const char called[] = "HandleQueueList called";
const char started[] = "MakeRequest for url http://a started. Payload size is ";

std::string Added(std::size_t size) {
  return Line("Request added to packet. Size =  " + std::to_string(size));
}

TEST_F(WalkTest, TheHostSeesTheCallsOfAWalkInThisOrder) {
  Start({}, true);
  PutItems('a', {"{\"a\":1}", "{\"b\":22}", "{}"});
  Cycle();
  EXPECT_THAT(Events(), ElementsAre("Run", "DisarmTimer", "IsBackgroundDisabled", "CreateQueueManager",
                                    "EnumerateQueues", "IsBackgroundDisabled", "CreateAckConsumer 0a",
                                    "Read 0a 1", "Read 0a 2", "Sign", "MakeRequestAsync http://a",
                                    "Wait 5000", "Ack 1", "Ack 2", "OnRequestFinished VeldRep 0 http://a",
                                    "Read 0a 3", "Read 0a none", "Sign", "MakeRequestAsync http://a",
                                    "Wait 5000", "Ack 3", "OnRequestFinished VeldRep 0 http://a"));
  const std::string success = Line("Request for url http://a finished with success");
  EXPECT_THAT(Lines(), ElementsAre(Line("OnSendTimeout called"), Line(called), Added(7), Added(8),
                                   Line(started + std::string("2")), success, Added(2),
                                   Line(started + std::string("1")), success, Line(noMore)));
  EXPECT_THAT(host.queues->Items(QueueName('a')), IsEmpty());
  EXPECT_FALSE(host.timer->Armed());
}

TEST_F(WalkTest, PacketsHoldAsManyItemsAsTheLimitSays) {
  struct Row {
    int items;
    std::uint32_t packetLimit;
    std::vector<int> packets;
  };
  const Row rows[] = {{0, 2, {}},  {5, 2, {2, 2, 1}}, {3, 1, {1, 1, 1}},
                      {3, 0, {3}}, {3, 9, {3}},       {4, 2, {2, 2}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.items) + " items, limit " + std::to_string(row.packetLimit));
    Start({.packetLimit = row.packetLimit}, true);
    for (int i = 0; i < row.items; ++i) PutItems('a', {"{}"});
    Cycle();
    Strings starts = Lines();
    std::erase_if(starts, [](const std::string& line) { return !line.starts_with(Line(started)); });
    Strings expected;
    for (const int size : row.packets) expected.push_back(Line(started + std::to_string(size)));
    EXPECT_THAT(starts, ElementsAreArray(expected));
    EXPECT_EQ(host.http->TakeSent().size(), row.packets.size());
    EndRow();
  }
}

// A queue with items of 1, 2, 4, 8 and 16 bytes in packets of two; the second packet meets the trouble.
TEST_F(WalkTest, TheFateOfAPacketDecidesTheWalk) {
  const auto answer = [&](HttpAnswer second) {
    host.http->Answer(HttpAnswer::Status(200));
    host.http->Answer(second);
  };
  const auto wait = [](ResultCode code) { return HttpAnswer{200, {}, HttpAnswer::When::inWait, code}; };
  const auto caught = [](std::string_view rest) { return CaughtLine("OnSendTimeout", rest); };
  const std::string url = "Request for url http://a ";
  const std::string success = Line(url + "finished with success");
  const std::string refused = url + "failed. Result is sOk, but status code is ";
  const Strings none, second = {"4444", "88888888"}, last = {"hhhhhhhhhhhhhhhh"};
  const Strings rest = {"4444", "88888888", "hhhhhhhhhhhhhhhh"};
  const std::string end = Line(noMore);
  const std::string invalid = std::to_string(zel::eInvalidResult);
  struct Row {
    const char* what;
    std::function<void()> script;
    Strings trouble;  // the lines behind the start of the second request
    std::string last;
    Strings left;
    std::size_t requests;
    std::string told;  // code of the second notification
    bool returned;     // the tokens of the second packet
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"200", [&] { answer(HttpAnswer::Status(200)); }, {success}, end, none, 3, "0", false},
      {"200 at once", [&] { answer(HttpAnswer::Status(200, HttpAnswer::When::atOnce)); }, {success}, end,
       none, 3, "0", false},
      {"500", [&] { answer(HttpAnswer::Status(500)); }, {Line(refused + "500")}, NotAllLine(12, 19), second, 3,
       invalid, true},
      {"204", [&] { answer(HttpAnswer::Status(204)); }, {Line(refused + "204")}, NotAllLine(12, 19), second, 3,
       invalid, true},
      {"no answer", [&] { answer(HttpAnswer::Failure(zel::eOperationCancelled)); },
       {Line(url + "failed. Error: -2147483567")}, NotAllLine(12, 3), rest, 2, "-2147483567", true},
      {"no answer, told by Wait too", [&] { answer(HttpAnswer::Failure(someCode, someCode)); },
       {Line(url + "failed. Error: -2147483579")}, NotAllLine(12, 3), rest, 2, "-2147483579", true},
      {"no answer, with a code that isn't negative", [&] { answer(HttpAnswer::Failure(7)); },
       {Line(url + "failed. Error: 7")}, NotAllLine(12, 19), second, 3, "7", true},
      {"200, but Wait says no", [&] { answer(wait(someCode)); }, {success}, end, last, 2, "0", false},
      {"200, and Wait says 1", [&] { answer(wait(1)); }, {success}, end, none, 3, "0", false},
      {"the client refuses", [&] { script().Fail("MakeRequestAsync", someCode, 2); },
       {caught(SystemError("MakeRequestAsync failed", someCode, "372"))}, end, rest, 1, "", true},
      {"the client throws", [&] { script().Throw("MakeRequestAsync", 2); },
       {caught("std::exception scripted")}, end, rest, 1, "", true},
      {"no JSON", [&] { host.locator->LackNth(zel::IJsonStorageFactory::iid, 3, someCode); },
       {caught(SystemError("Failed to get zel::IJsonStorageFactory", someCode,
       "orvel_tools/json_helpers(27)"))}, end, rest, 1, "", true},
      {"Wait throws", [&] { script().Do("Wait", [&]() -> ResultCode { host.http->Complete(500);
       throw std::bad_alloc(); }, 2); }, {Line(refused + "500"), caught("std::bad_alloc std::bad_alloc")},
       end, rest, 2, invalid, true},
      {"the notification throws", [&] { script().Throw("OnRequestFinished", 2); }, {success}, end, last, 2,
       "0", false},
      {"an Ack fails", [&] { script().Fail("Ack", someCode, 3); }, {success}, end, {"4444"}, 3, "0", false},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start({}, true);
    PutItems('a', {"1", "22", "4444", "88888888", "hhhhhhhhhhhhhhhh"});
    row.script();
    Cycle();
    const Strings lines = Lines();
    // Called, called; two items, start and success of the first request; two items and start of the second.
    const std::size_t before = 9;
    ASSERT_GT(lines.size(), before + row.trouble.size());
    EXPECT_EQ(lines.at(before - 1), Line(started + std::string("2")));
    EXPECT_THAT(
        Strings(lines.begin() + before, lines.begin() + before + static_cast<long>(row.trouble.size())),
        ElementsAreArray(row.trouble));
    EXPECT_EQ(lines.back(), row.last);
    EXPECT_EQ(host.timer->Armed(), row.last != end);
    EXPECT_THAT(host.queues->Items(QueueName('a')), ElementsAreArray(row.left));
    EXPECT_EQ(host.http->TakeSent().size(), row.requests);
    Strings returned;
    Strings told;
    for (const std::string& event : Events({"OnRequestFinished", "ReturnItem"})) {
      (event.starts_with("ReturnItem") ? returned : told).push_back(event);
    }
    EXPECT_THAT(returned,
                ElementsAreArray(row.returned ? Strings{"ReturnItem 3", "ReturnItem 4"} : Strings()));
    Strings codes = {"0"};
    if (!row.told.empty()) codes.push_back(row.told);
    if (row.requests == 3) codes.push_back("0");
    for (std::string& code : codes) code = "OnRequestFinished VeldRep " + code + " http://a";
    EXPECT_THAT(told, ElementsAreArray(codes));
    EndRow();
  }
}

// Two queues with an item of 5 bytes each. Which comes first is the shuffle's choice.
TEST_F(WalkTest, WhatEndsAWalkBetweenOrInQueues) {
  const std::string end = Line(noMore);
  const auto caught = [](std::string_view rest) { return CaughtLine("OnSendTimeout", rest); };
  const std::string objclient = ". At zel\\rtl\\error_handling\\../objclient(129) ";
  struct Row {
    const char* what;
    std::function<void()> script;
    Strings failures;  // the lines of level 300
    std::string last;
    std::size_t requests;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"no manager", [&] { script().Fail("CreateQueueManager", someCode); },
       {caught(SystemError("Can not create IQueueManager", someCode, "105"))}, end, 0},
      {"no names", [&] { script().Fail("EnumerateQueues", someCode); },
       {caught(SystemError("Can not enumerate queues", someCode, "106"))}, end, 0},
      {"no reader for the second queue", [&] { host.http->Answer(HttpAnswer::Status(500));
       script().Fail("CreateAckConsumer", someCode, 2); }, {caught(SystemError("Can not create AckConsumer",
       someCode, "544"))}, NotAllLine(5, 0), 1},
      {"no allocator for the callback", [&] { host.locator->LackNth(zel::IAllocator::iid, 1, someCode); },
       {caught(SystemError("Can not create callback", someCode, "558"))}, end, 0},
      {"no allocator in the callback", [&] { host.locator->LackNth(zel::IAllocator::iid, 2, someCode); },
       {"300 Exception during object construction: GetInterfaceException - 0x80000045 (Access denied): iid = "
       "0x9cca5603" + objclient, caught(SystemError("Can not create callback", someCode, "558"))}, end, 0},
      {"no memory for the callback of the second queue", [&] { host.http->Answer(HttpAnswer::Status(200));
       script().Do("CreateAckConsumer", [&] { return host.allocator->FailNth(1), 0; }, 2); },
       {"300 Exception during object construction: std::bad_alloc",
       caught(SystemError("Can not create callback", zel::eOutOfMemory, "558"))}, end, 1},
      {"a read says 1", [&] { script().Fail("Read", 1); }, {}, end, 1},
      {"a read throws", [&] { script().Throw("Read", 2); }, {caught("std::exception scripted")}, end, 0},
      {"the first server is out of reach", [&] { host.http->Answer(HttpAnswer::Failure(someCode)); }, {},
       NotAllLine(5, 0), 1},
      {"the first server refuses", [&] { host.http->Answer(HttpAnswer::Status(500)); }, {}, NotAllLine(5, 5), 2},
      {"a name comes twice", [&] { host.queues->store.extraNames = {QueueName('a'), QueueName('b')}; }, {}, end, 2},
      {"names without a row", [&] { host.queues->store.extraNames = {"", QueueName('c'), "0a",
       QueueName('a') + "0"}; }, {}, end, 2},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start({.urls = {urlA, urlB}}, true);
    PutItems('a', {"12345"});
    PutItems('b', {"12345"});
    TriggerCycle();
    row.script();
    Lines();
    Fire();
    Strings lines = Lines();
    EXPECT_EQ(lines.back(), row.last);
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("700"); });
    EXPECT_THAT(lines, ElementsAreArray(row.failures));
    EXPECT_EQ(host.http->TakeSent().size(), row.requests);
    EXPECT_EQ(host.timer->Armed(), row.last != end);
    // What wasn't delivered goes out in the next cycle.
    Cycle();
    EXPECT_THAT(host.queues->Items(QueueName('a')), IsEmpty());
    EXPECT_THAT(host.queues->Items(QueueName('b')), IsEmpty());
    host.http->TakeSent();
    EndRow();
  }
}

// The draws come from the runtime's rand, in a fixed order: position 1 first, 15 bits each, and a draw that
// would favour a name is thrown away.
TEST_F(WalkTest, TheOrderOfQueuesFollowsTheRuntimesDraws) {
  const auto expected = [](Strings names) {
    for (std::size_t i = 1; i < names.size(); ++i) {
      const auto k = static_cast<int>(i) + 1;
      int draw = std::rand() & 32767;
      while (draw / k >= 32767 / k && 32767 % k != k - 1) draw = std::rand() & 32767;
      std::swap(names[i], names[static_cast<std::size_t>(draw % k)]);
    }
    return names;
  };
  Start({.urls = {u"http://a", u"http://b", u"http://c", u"http://d", u"http://e", u"http://f"}}, true);
  Strings names;
  for (const char queue : {'a', 'b', 'c', 'd', 'e', 'f'}) {
    host.queues->Items(QueueName(queue));  // makes it
    names.push_back(std::string("CreateAckConsumer 0") + queue);
  }
  for (unsigned seed = 0; seed < 50; ++seed) {
    SCOPED_TRACE(seed);
    std::srand(seed);
    const Strings order = expected(names);
    TriggerCycle();
    std::srand(seed);
    Fire();
    EXPECT_THAT(Events({"CreateAckConsumer"}), ElementsAreArray(order));
  }
}

}  // namespace
}  // namespace veld_report::tests
