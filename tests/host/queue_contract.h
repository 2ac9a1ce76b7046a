// What every queue service has to do, in memory or on a disk.
//
// A test program derives from QueuesUnderTest and instantiates the suite for it:
//   INSTANTIATE_TEST_SUITE_P(Sqlite, QueueContract, testing::Values(MakeQueues<SqliteQueues>));
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "tests/host/queue_items.h"

namespace veld_report::tests {

// A service and a way to end it and start it again on what it has kept. Restart is called only while no
// producer, reader or manager of it is alive.
class QueuesUnderTest {
 public:
  virtual ~QueuesUnderTest() = default;
  virtual orvel::IQueueFactory& Factory() = 0;
  virtual void Restart() = 0;
};

template <class Queues>
std::unique_ptr<QueuesUnderTest> MakeQueues() {
  return std::make_unique<Queues>();
}

class QueueContract : public testing::TestWithParam<std::unique_ptr<QueuesUnderTest> (*)()>,
                      protected QueueOperations {
 protected:
  orvel::IQueueFactory& Factory() override { return queues->Factory(); }
  Strings Names(const char* domain = usualDomain) {
    zel::vector_t<zel::string> names;
    EXPECT_EQ(Manager(domain)->EnumerateQueues(&names), zel::sOk);
    Strings result;
    for (const zel::string& name : names) result.emplace_back(name.View());
    std::ranges::sort(result);
    return result;
  }

  std::unique_ptr<QueuesUnderTest> queues = GetParam()();
};

TEST_P(QueueContract, ItemsComeOutOldestFirstAndByteForByte) {
  const Strings pushed = {"a", "", std::string("\0\xff\n\0", 4), std::string(200'000, 'x'), "b"};
  const auto reader = Reader("q");  // finds what is pushed later
  for (std::string text : pushed) {
    Push("q", text);
    text.assign(text.size(), '?');  // the item is a copy
  }
  zel::vector_t<std::uint8_t> reused;
  std::uint64_t token = 0;
  Strings found;
  while (found.size() <= pushed.size() && reader->Read(&reused, &token) == zel::sOk)
    found.emplace_back(reused.first, reused.last);
  EXPECT_EQ(found, pushed);
}

TEST_P(QueueContract, AReturnedOrOrphanedItemIsFreeInItsOldPlace) {
  Push("q", "1", "2", "3");
  auto reader = Reader("q");
  const auto first = ReadOne(*reader);
  ASSERT_TRUE(first);
  EXPECT_EQ(reader->ReturnItem(&first->token), zel::sOk);
  const auto second = ReadOne(*reader);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->bytes, "2") << "no reader hands an item out twice";
  EXPECT_EQ(Waiting("q"), (Strings{"1", "3"}));
  reader.Reset();
  EXPECT_EQ(Waiting("q"), (Strings{"1", "2", "3"}));
}

TEST_P(QueueContract, ATokenIsNeverUsedAgain) {
  std::set<std::uint64_t> seen;
  for (int round = 0; round < 3; ++round) {
    Push("q", "1", "2");
    {
      const auto reader = Reader("q");
      for (const ReadItem& item : ReadAll(*reader)) {
        EXPECT_TRUE(seen.insert(item.token).second) << item.token;
        EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
      }
    }
    if (round == 0) queues->Restart();
    if (round == 1) Manager()->RemoveQueue(zel::string("q"));
  }
  EXPECT_EQ(seen.size(), 6u);
}

TEST_P(QueueContract, OnlyAHolderCanAcknowledgeOrReturn) {
  Push("q", "1", "2");
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
    std::size_t waiting;
    std::size_t size;
    bool fits;
  };
  constexpr Case cases[] = {
      {"exact fit", 10, 6, 4, true},
      {"one byte too many", 10, 6, 5, false},
      {"alone, too large", 10, 0, 11, false},
      {"nothing into full", 10, 10, 0, true},
      {"limit 0", 0, 0, 1, false},
      {"limit lowered", 5, 8, 0, false},
      {"largest limit", 0xffffffff, 4, 4, true},
  };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.what);
    Strings expected = {std::string(row.waiting, 'w')};
    Push(row.what, expected[0]);
    const auto producer = Producer(row.what, row.limit);
    EXPECT_EQ(PushText(*producer, std::string(row.size, 'n')), row.fits ? zel::sOk : zel::eOutOfSpace);
    if (row.fits) expected.emplace_back(row.size, 'n');
    EXPECT_EQ(Waiting(row.what), expected);
  }
}

TEST_P(QueueContract, AProducerMakesItsQueueInItsDomainAndAReaderDoesNot) {
  EXPECT_EQ(Waiting("read only"), Strings{});
  EXPECT_EQ(Names(), Strings{});
  const auto producer = Producer("q");
  EXPECT_EQ(Names(), Strings{"q"});
  EXPECT_EQ(PushText(*Producer("q", roomy, "other"), "elsewhere"), zel::sOk);
  EXPECT_EQ(Waiting("q"), Strings{});
  EXPECT_EQ(Waiting("q", "other"), Strings{"elsewhere"});
  EXPECT_EQ(Manager("other")->RemoveQueue(zel::string("q")), zel::sOk);
  EXPECT_EQ(Names("other"), Strings{});
  EXPECT_EQ(Names(), Strings{"q"});
}

TEST_P(QueueContract, RemovingAQueueVoidsItsClaimsAndAPushMakesItAnew) {
  Push("kept", "k");
  {
    const auto producer = Producer("q");
    EXPECT_EQ(PushText(*producer, "1"), zel::sOk);
    EXPECT_EQ(PushText(*producer, "2"), zel::sOk);
    const auto reader = Reader("q");
    const auto first = ReadOne(*reader);
    ASSERT_TRUE(first);
    EXPECT_EQ(Manager()->RemoveQueue(zel::string("q")), zel::sOk);
    EXPECT_EQ(Names(), Strings{"kept"});
    EXPECT_FALSE(ReadOne(*reader));
    EXPECT_EQ(PushText(*producer, "new"), zel::sOk);
    EXPECT_NE(reader->Ack(&first->token), zel::sOk);
  }
  queues->Restart();
  EXPECT_EQ(Names(), (Strings{"kept", "q"}));
  EXPECT_EQ(Waiting("q"), Strings{"new"});
}

TEST_P(QueueContract, ThreadsReadEachItemOnceAndAcknowledgeForEachOther) {
  constexpr std::size_t threads = 4;
  constexpr std::size_t each = 500;
  std::mutex mutex;  // guards the following
  std::multiset<std::string> found;
  std::pair<zel::Ref<orvel::IAckConsumer>, std::uint64_t> left;  // what the next thread acknowledges
  std::vector<std::jthread> running;
  for (std::size_t thread = 0; thread < threads; ++thread) {
    running.emplace_back([&, thread] {
      const auto producer = Producer("q");
      for (std::size_t i = 0; i < each; ++i)
        EXPECT_EQ(PushText(*producer, Numbered(thread * each + i)), zel::sOk);
      const auto reader = Reader("q");
      while (const auto item = ReadOne(*reader)) {
        std::pair claim{reader, item->token};
        {
          const std::lock_guard lock(mutex);
          found.insert(item->bytes);
          std::swap(claim, left);
        }
        EXPECT_TRUE(!claim.first || claim.first->Ack(&claim.second) == zel::sOk);
      }
    });
  }
  running.clear();
  EXPECT_EQ(left.first->ReturnItem(&left.second), zel::sOk);
  for (std::size_t i = 0; i < threads * each; ++i) EXPECT_EQ(found.count(Numbered(i)), 1u) << i;
  EXPECT_EQ(Waiting("q").size(), 1u);
}

}  // namespace veld_report::tests
