// Random operations on a store that two services share, against a model of what must be in it.
#include <gmock/gmock.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "host/queue/store_maintenance.h"
#include "tests/host/faulty_vfs.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

using Service = zel::Ref<host::QueueService>;

class QueueRandomTest : public StoreTest, public testing::WithParamInterface<int> {
 protected:
  std::size_t Draw(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(random);
  }

  void PushOrEvict(const std::string& queue) {
    zel::Ref<orvel::IQueueProducer>& producer = producers[current][queue];
    if (!producer) producer = Producer(queue.c_str(), 300);
    const std::string text = std::to_string(number++) + std::string(Draw(60), '.');
    zel::ResultCode code = PushText(*producer, text);
    if (code == zel::eOutOfSpace && Draw(2) == 0) {
      const auto reader = Reader(queue.c_str());
      while (code == zel::eOutOfSpace) {
        const auto oldest = ReadOne(*reader);
        if (!oldest) break;  // the rest of what the other service has pushed stands in its buffer
        EXPECT_EQ(reader->Ack(&oldest->token), zel::sOk);
        Leaves(queue, oldest->bytes);
        code = PushText(*producer, text);
      }
    }
    if (code == zel::sOk) waiting[queue].insert(text);
  }
  void Leaves(const std::string& queue, const std::string& text) {
    EXPECT_EQ(waiting[queue].erase(text), 1u) << text << " came up that isn't waiting";
  }
  void Deliver(const std::string& queue) {
    const auto reader = Reader(queue.c_str());
    for (const ReadItem& item : ReadAll(*reader, Draw(5))) {
      if (Draw(4) == 0) {
        EXPECT_EQ(reader->ReturnItem(&item.token), zel::sOk);
      } else {
        EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
        Leaves(queue, item.bytes);
      }
    }
  }
  void Step() {
    current = Draw(2);
    service = services[current];
    const std::string queue(1, static_cast<char>('a' + Draw(3)));
    switch (Draw(10)) {
      case 0:
        services[current ^ 1]->Commit();
        service->ClearQueue(queue);
        waiting[queue].clear();
        break;
      case 1:
        service.Reset();
        producers[current].clear();
        services[current].Reset();
        services[current] = host::QueueService::Open(options);
        break;
      case 2:
      case 3:
      case 4:
        Deliver(queue);
        break;
      default:
        PushOrEvict(queue);
    }
  }

  std::mt19937 random;
  // Both services, each with its own buffer, must come to the figures of the model.
  void Compare() {
    for (const Service& each : services) each->Commit();
    EXPECT_EQ(services[0]->Ledgers(), services[1]->Ledgers());
    for (const Service& each : services) {
      auto ledgers = each->Ledgers();
      for (const auto& [queue, model] : waiting) {
        const host::QueueLedger& ledger = ledgers[queue];
        EXPECT_TRUE(ledger.IsBalanced()) << testing::PrintToString(ledger);
        EXPECT_EQ(ledger.waiting.items, static_cast<std::int64_t>(model.size()));
      }
    }
  }

  Service services[2];
  std::map<std::string, zel::Ref<orvel::IQueueProducer>> producers[2];
  std::size_t current = 0;
  std::map<std::string, std::set<std::string>> waiting;
  int number = 0;
};

TEST_P(QueueRandomTest, TwoServicesOnOneStoreAgreeWithTheModel) {
  const char* given = std::getenv("VELD_TEST_SEED");
  const auto seed = given ? static_cast<unsigned>(std::atoi(given)) : static_cast<unsigned>(GetParam());
  SCOPED_TRACE("seed " + std::to_string(seed) + "; VELD_TEST_SEED sets it");
  random.seed(seed);
  FaultyVfs::Register();
  options.vfs = FaultyVfs::name;  // for its speed: it doesn't sync
  options.shared = true;
  options.commitOperations = 1 + Draw(20);
  options.commitDelay = std::chrono::hours(1);  // what is written when follows from the seed alone
  for (Service& each : services) each = host::QueueService::Open(options);
  for (int step = 0; step < 400 && !HasFailure(); ++step) {
    Step();
    for (const auto& [queue, ledger] : services[step % 2]->Ledgers())
      EXPECT_TRUE(ledger.IsBalanced()) << queue;
    if (step % 20 == 19) Compare();
  }
  service = services[current];
  for (const auto& [queue, model] : waiting) {
    EXPECT_THAT(Waiting(queue.c_str()), testing::UnorderedElementsAreArray(model));
  }
  for (auto& each : producers) each.clear();
  service.Reset();
  for (Service& each : services) each.Reset();
  EXPECT_THAT(host::CheckStore(options.folder)[0].findings, testing::IsEmpty());
}

TEST_F(StoreTest, FiguresThatAreNotWrittenYetCountBesideThoseOfOthers) {
  options.shared = true;
  options.commitDelay = std::chrono::hours(1);
  Open();
  const auto producer = Producer("q", 10);
  EXPECT_EQ(PushText(*producer, "in the buffer"), zel::eOutOfSpace);
  EXPECT_EQ(PushText(*producer, "buffered"), zel::sOk);
  {
    const Service other = host::QueueService::Open(options);
    zel::Ref<orvel::IQueueProducer> theirs;
    ASSERT_EQ(other->CreateProducer(zel::string("veld_rep"), zel::string("q"), 100, theirs.Out()), zel::sOk);
    EXPECT_EQ(PushText(*theirs, "written"), zel::sOk);
  }
  EXPECT_EQ(service->Ledgers()["q"],
            (host::QueueLedger{.accepted = {3, 28}, .rejected = {1, 13}, .waiting = {2, 15}}));
}

INSTANTIATE_TEST_SUITE_P(Seeds, QueueRandomTest, testing::Range(1, 7));

}  // namespace
}  // namespace veld_report::tests
