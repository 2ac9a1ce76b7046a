// What every queue service has to do, in memory or on a disk.
//
// A test program gives the suite a QueueMaker and instantiates it:
//   INSTANTIATE_TEST_SUITE_P(Real, QueueContract, testing::Values(QueueMaker{"Sqlite", MakeIt}));
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "contract/queue.h"
#include "tests/host/queue_items.h"
#include "types/ref.h"

namespace veld_report::tests {

// A service and a way to end it and start it again on what it has kept. Restart is called only while no
// producer, reader or manager of it is alive.
class QueuesUnderTest {
 public:
  virtual ~QueuesUnderTest() = default;
  virtual orvel::IQueueFactory& Factory() = 0;
  virtual void Restart() = 0;
};

struct QueueMaker {
  std::string name;
  std::function<std::unique_ptr<QueuesUnderTest>()> make;
};
inline void PrintTo(const QueueMaker& maker, std::ostream* out) { *out << maker.name; }

class QueueContract : public testing::TestWithParam<QueueMaker> {
 protected:
  using Strings = std::vector<std::string>;
  static constexpr std::uint32_t roomy = 1 << 24;

  zel::Ref<orvel::IQueueProducer> Producer(const char* queue, std::uint32_t limit = roomy,
                                           const char* domain = "veld_rep") {
    zel::Ref<orvel::IQueueProducer> producer;
    EXPECT_EQ(
        queues->Factory().CreateProducer(zel::string(domain), zel::string(queue), limit, producer.Out()),
        zel::sOk);
    return producer;
  }
  zel::Ref<orvel::IAckConsumer> Reader(const char* queue, const char* domain = "veld_rep") {
    zel::Ref<orvel::IAckConsumer> reader;
    EXPECT_EQ(queues->Factory().CreateAckConsumer(zel::string(domain), zel::string(queue), reader.Out()),
              zel::sOk);
    return reader;
  }
  zel::Ref<orvel::IQueueManager> Manager(const char* domain = "veld_rep") {
    zel::Ref<orvel::IQueueManager> manager;
    EXPECT_EQ(queues->Factory().CreateQueueManager(zel::string(domain), manager.Out()), zel::sOk);
    return manager;
  }
  void Fill(const char* queue, const Strings& texts) {
    const auto producer = Producer(queue);
    for (const std::string& text : texts) EXPECT_EQ(PushText(*producer, text), zel::sOk);
  }
  // What a fresh reader finds; its claims end with it.
  Strings Waiting(const char* queue, const char* domain = "veld_rep") {
    return Texts(ReadAll(*Reader(queue, domain)));
  }
  Strings Names(const char* domain = "veld_rep") {
    zel::vector_t<zel::string> names;
    EXPECT_EQ(Manager(domain)->EnumerateQueues(&names), zel::sOk);
    Strings result;
    for (const zel::string& name : names) result.emplace_back(name.View());
    std::ranges::sort(result);
    return result;
  }

  std::unique_ptr<QueuesUnderTest> queues = GetParam().make();
};

TEST_P(QueueContract, ItemsComeOutOldestFirstAndByteForByte) {
  std::string text = "pushed text";
  const Strings pushed = {"a", "", std::string("\0\xff\n\0", 4), std::string(200'000, 'x'), "pushed text"};
  const auto producer = Producer("q");
  for (std::size_t i = 0; i + 1 < pushed.size(); ++i) EXPECT_EQ(PushText(*producer, pushed[i]), zel::sOk);
  EXPECT_EQ(PushText(*producer, text), zel::sOk);
  text.assign("overwritten");  // the item is a copy
  const auto reader = Reader("q");
  zel::vector_t<std::uint8_t> reused;
  for (const std::string& expected : pushed) {
    std::uint64_t token = 0;
    ASSERT_EQ(reader->Read(&reused, &token), zel::sOk);
    EXPECT_EQ(std::string(reused.first, reused.last), expected);
  }
  std::uint64_t token = 0;
  EXPECT_NE(reader->Read(&reused, &token), zel::sOk);
}

TEST_P(QueueContract, AReaderSeesItemsThatArePushedAfterItWasMade) {
  const auto reader = Reader("q");
  Fill("q", {"late"});
  EXPECT_EQ(Texts(ReadAll(*reader)), Strings{"late"});
}

TEST_P(QueueContract, AReturnedItemIsForALaterReaderInItsOldPlace) {
  Fill("q", {"1", "2", "3", "4"});
  const auto reader = Reader("q");
  auto item = ReadOne(*reader);
  ASSERT_TRUE(item);
  EXPECT_EQ(reader->ReturnItem(&item->token), zel::sOk);
  item = ReadOne(*reader);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->bytes, "2");
  EXPECT_EQ(reader->Ack(&item->token), zel::sOk);
  EXPECT_EQ(Texts(ReadAll(*reader)), (Strings{"3", "4"})) << "no reader hands an item out twice";
  // 3 and 4 are held.
  EXPECT_EQ(Waiting("q"), Strings{"1"});
}

TEST_P(QueueContract, HeldItemsAreFreeWhenTheirReaderIsGone) {
  Fill("q", {"1", "2"});
  auto holder = Reader("q");
  ASSERT_TRUE(ReadOne(*holder));
  EXPECT_EQ(Waiting("q"), Strings{"2"});
  holder.Reset();
  EXPECT_EQ(Waiting("q"), (Strings{"1", "2"}));
}

TEST_P(QueueContract, WhatIsNotAcknowledgedSurvivesARestart) {
  Fill("a", {"1", "2", "3"});
  Fill("b", {"other"});
  {
    const auto reader = Reader("a");
    const auto items = ReadAll(*reader);
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(reader->Ack(&items[1].token), zel::sOk);
    EXPECT_EQ(reader->ReturnItem(&items[2].token), zel::sOk);
  }
  queues->Restart();
  EXPECT_EQ(Names(), (Strings{"a", "b"}));
  EXPECT_EQ(Waiting("a"), (Strings{"1", "3"}));
  EXPECT_EQ(Waiting("b"), Strings{"other"});
}

TEST_P(QueueContract, ATokenIsNeverUsedAgain) {
  std::set<std::uint64_t> seen;
  for (int round = 0; round < 3; ++round) {
    Fill("q", {"1", "2"});
    {
      const auto reader = Reader("q");
      for (const ReadItem& item : ReadAll(*reader)) {
        EXPECT_TRUE(seen.insert(item.token).second) << item.token;
        EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
      }
    }
    EXPECT_EQ(Waiting("q"), Strings{});
    if (round == 0) queues->Restart();
    if (round == 1) Manager()->RemoveQueue(zel::string("q"));
  }
  EXPECT_EQ(seen.size(), 6u);
}

TEST_P(QueueContract, OnlyAHolderCanAcknowledgeOrReturn) {
  Fill("q", {"1", "2"});
  const auto holder = Reader("q");
  const auto held = ReadOne(*holder);
  ASSERT_TRUE(held);
  const auto other = Reader("q");
  const std::uint64_t unknown = held->token + 1000;
  EXPECT_NE(other->Ack(&held->token), zel::sOk);
  EXPECT_NE(other->ReturnItem(&held->token), zel::sOk);
  EXPECT_NE(holder->Ack(&unknown), zel::sOk);
  EXPECT_EQ(holder->ReturnItem(&held->token), zel::sOk);
  EXPECT_NE(holder->Ack(&held->token), zel::sOk) << "given back before";
  EXPECT_EQ(Waiting("q"), (Strings{"1", "2"}));
}

TEST_P(QueueContract, TheLimitCountsTheBytesOfTheItems) {
  struct Case {
    const char* what;
    std::uint32_t limit;
    std::vector<std::size_t> waiting;
    std::size_t size;
    bool fits;
  };
  const std::vector<Case> cases = {
      {"exact fit", 10, {4, 2}, 4, true},          {"one byte too many", 10, {4, 2}, 5, false},
      {"alone and exact", 10, {}, 10, true},       {"alone and too large", 10, {}, 11, false},
      {"nothing into full", 10, {10}, 0, true},    {"limit 0", 0, {}, 1, false},
      {"nothing under limit 0", 0, {}, 0, true},   {"limit lowered", 5, {4, 4}, 0, false},
      {"largest limit", 0xffffffff, {4}, 4, true},
  };
  int number = 0;
  for (const Case& row : cases) {
    SCOPED_TRACE(row.what);
    const std::string queue = "limit" + std::to_string(number++);
    Strings expected;
    for (const std::size_t size : row.waiting) expected.emplace_back(size, 'w');
    Fill(queue.c_str(), expected);
    const auto producer = Producer(queue.c_str(), row.limit);
    EXPECT_EQ(PushText(*producer, std::string(row.size, 'n')), row.fits ? zel::sOk : zel::eOutOfSpace);
    if (row.fits) expected.emplace_back(row.size, 'n');
    EXPECT_EQ(Waiting(queue.c_str()), expected);
  }
}

TEST_P(QueueContract, RoomIsMadeByDroppingTheOldest) {
  const auto producer = Producer("q", 10);
  for (int i = 0; i < 5; ++i)
    ASSERT_EQ(PushText(*producer, std::string(2, static_cast<char>('0' + i))), zel::sOk);
  int pushes = 0;
  const auto makeRoomFor = [&](const std::string& text) {
    const auto reader = Reader("q");
    for (pushes = 1; PushText(*producer, text) == zel::eOutOfSpace; ++pushes) {
      const auto oldest = ReadOne(*reader);
      if (!oldest) return false;
      EXPECT_EQ(reader->Ack(&oldest->token), zel::sOk);
    }
    return true;
  };
  EXPECT_TRUE(makeRoomFor("new!"));
  EXPECT_EQ(pushes, 3);
  EXPECT_EQ(Waiting("q"), (Strings{"22", "33", "44", "new!"}));
  EXPECT_FALSE(makeRoomFor("larger than all"));
  EXPECT_EQ(Waiting("q"), Strings{});
  EXPECT_EQ(PushText(*producer, "fits again"), zel::sOk);
}

TEST_P(QueueContract, AProducerMakesItsQueueAndAReaderDoesNot) {
  EXPECT_EQ(Names(), Strings{});
  EXPECT_EQ(Waiting("read only"), Strings{});
  const auto producer = Producer("made");
  EXPECT_EQ(Names(), Strings{"made"});
  queues->Factory();
  Fill("second", {"x"});
  EXPECT_EQ(Names(), (Strings{"made", "second"}));
}

TEST_P(QueueContract, DomainsAreApart) {
  Fill("q", {"first domain"});
  const auto producer = Producer("q", roomy, "other");
  EXPECT_EQ(PushText(*producer, "second domain"), zel::sOk);
  EXPECT_EQ(Waiting("q"), Strings{"first domain"});
  EXPECT_EQ(Waiting("q", "other"), Strings{"second domain"});
  EXPECT_EQ(Manager("other")->RemoveQueue(zel::string("q")), zel::sOk);
  EXPECT_EQ(Names("other"), Strings{});
  EXPECT_EQ(Names(), Strings{"q"});
}

TEST_P(QueueContract, ARemovedQueueTakesItsItemsWithIt) {
  Fill("gone", {"1", "2"});
  Fill("kept", {"k"});
  EXPECT_EQ(Manager()->RemoveQueue(zel::string("gone")), zel::sOk);
  EXPECT_EQ(Names(), Strings{"kept"});
  EXPECT_EQ(Waiting("gone"), Strings{});
  EXPECT_EQ(Waiting("kept"), Strings{"k"});
  queues->Restart();
  EXPECT_EQ(Names(), Strings{"kept"});
}

TEST_P(QueueContract, RemovingAQueueInUseVoidsItsClaimsAndAPushMakesItAnew) {
  auto producer = Producer("q");
  for (const char* text : {"1", "2", "3"}) EXPECT_EQ(PushText(*producer, text), zel::sOk);
  auto reader = Reader("q");
  const auto first = ReadOne(*reader);
  const auto second = ReadOne(*reader);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(Manager()->RemoveQueue(zel::string("q")), zel::sOk);
  EXPECT_FALSE(ReadOne(*reader));
  EXPECT_EQ(PushText(*producer, "new"), zel::sOk);
  EXPECT_EQ(Names(), Strings{"q"});
  reader->Ack(&first->token);  // harmless
  reader->ReturnItem(&second->token);
  reader.Reset();
  EXPECT_EQ(Waiting("q"), Strings{"new"});
}

TEST_P(QueueContract, AcknowledgingRunsBesideReading) {
  constexpr std::size_t count = 2000;
  {
    const auto producer = Producer("q");
    for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(PushText(*producer, Numbered(i)), zel::sOk);
  }
  {
    const auto reader = Reader("q");
    std::vector<std::uint64_t> tokens(count);
    std::atomic<std::size_t> read{0};
    // Every tenth item is given back.
    std::thread completion([&] {
      for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t seen = read.load(); seen <= i; seen = read.load()) read.wait(seen);
        EXPECT_EQ(i % 10 == 0 ? reader->ReturnItem(&tokens[i]) : reader->Ack(&tokens[i]), zel::sOk);
      }
    });
    for (std::size_t i = 0; i < count; ++i) {
      const auto item = ReadOne(*reader);
      EXPECT_TRUE(item && item->bytes == Numbered(i)) << i;
      tokens[i] = item ? item->token : 0;
      read.store(i + 1);
      read.notify_one();
    }
    completion.join();
  }
  Strings returned;
  for (std::size_t i = 0; i < count; i += 10) returned.push_back(Numbered(i));
  EXPECT_EQ(Waiting("q"), returned);
}

TEST_P(QueueContract, ItemsOfManyThreadsAreReadOnceByManyReaders) {
  constexpr std::size_t threads = 4;
  constexpr std::size_t each = 500;
  const auto run = [&](auto body) {
    std::vector<std::thread> running;
    for (std::size_t thread = 0; thread < threads; ++thread) running.emplace_back(body, thread);
    for (std::thread& thread : running) thread.join();
  };
  run([&](std::size_t thread) {
    const auto producer = Producer("q");
    for (std::size_t i = 0; i < each; ++i)
      EXPECT_EQ(PushText(*producer, Numbered(thread * each + i)), zel::sOk);
  });
  std::vector<Strings> found(threads);
  run([&](std::size_t thread) {
    const auto reader = Reader("q");
    for (const ReadItem& item : ReadAll(*reader)) {
      found[thread].push_back(item.bytes);
      EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
    }
  });
  std::multiset<std::string> all;
  for (const Strings& part : found) all.insert(part.begin(), part.end());
  EXPECT_EQ(all.size(), threads * each);
  for (std::size_t i = 0; i < threads * each; ++i) EXPECT_EQ(all.count(Numbered(i)), 1u) << i;
  EXPECT_EQ(Waiting("q"), Strings{});
}

}  // namespace veld_report::tests
