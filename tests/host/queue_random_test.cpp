// Random operations on a store that two services share, against a model of what must be in it.
#include <gmock/gmock.h>

#include <cstdlib>
#include <map>
#include <random>
#include <set>

#include "tests/host/faulty_vfs.h"
#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

class QueueRandomTest : public StoreTest, public testing::WithParamInterface<int> {
 protected:
  struct Model {
    std::set<std::string> waiting;
    host::QueueLedger ledger;
  };

  std::size_t Draw(std::size_t below) {
    return std::uniform_int_distribution<std::size_t>(0, below - 1)(random);
  }
  static host::ItemCount One(const std::string& text) { return {1, static_cast<std::int64_t>(text.size())}; }
  void Leaves(Model& model, const std::string& text, host::ItemCount host::QueueLedger::*figure) {
    EXPECT_EQ(model.waiting.erase(text), 1u) << text << " came up that isn't waiting";
    model.ledger.waiting += -One(text);
    model.ledger.*figure += One(text);
  }

  void PushOrEvict(const std::string& queue) {
    auto& producer = producers[current][queue];
    if (!producer) producer = Producer(queue, 300);
    Model& model = models[queue];
    const std::string text = std::to_string(number++) + std::string(Draw(60), '.');
    Strings evicted;
    const bool makesRoom = Draw(2) == 0;
    const auto code = makesRoom ? EvictAndPush(*producer, queue, text, &evicted) : PushText(*producer, text);
    for (const std::string& gone : evicted) Leaves(model, gone, &host::QueueLedger::evicted);
    model.ledger.accepted += One(text);
    (code == zel::sOk ? model.ledger.waiting : model.ledger.rejected) += One(text);
    if (code == zel::sOk) model.waiting.insert(text);
  }
  void Deliver(const std::string& queue) {
    Model& model = models[queue];
    Reader("none");  // what is read right behind a refused push counts as evicted
    const auto reader = Reader(queue);
    for (const ReadItem& item : ReadAll(*reader, Draw(5))) {
      if (Draw(4) == 0) {
        EXPECT_EQ(reader->ReturnItem(&item.token), zel::sOk);
        model.ledger.returned += One(item.bytes);
      } else {
        EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
        Leaves(model, item.bytes, &host::QueueLedger::delivered);
      }
    }
  }
  void Step() {
    current = Draw(2);
    service = services[current];
    const std::string queue(1, "abc"[Draw(3)]);
    const std::size_t kind = Draw(10);
    if (kind == 0) {
      services[1 - current]->Commit();
      service->ClearQueue(queue);
      Model& model = models[queue];
      model.waiting.clear();
      model.ledger.removed += std::exchange(model.ledger.waiting, {});
    } else if (kind == 1) {
      producers[current].clear();
      services[current].Reset();
      Open();
      services[current] = service;
    } else if (kind < 5) {
      Deliver(queue);
    } else {
      PushOrEvict(queue);
    }
    for (const auto& [name, ledger] : service->Ledgers()) EXPECT_TRUE(ledger.IsBalanced()) << name;
  }
  // Both services must come to the figures of the model, with their own operations written or not.
  void Compare() {
    for (std::size_t i = 0; i < 2; ++i) {
      services[1 - i]->Commit();
      auto ledgers = services[i]->Ledgers();
      for (const auto& [queue, model] : models) EXPECT_EQ(ledgers[queue], model.ledger) << queue;
    }
  }

  std::mt19937 random;
  zel::Ref<host::QueueService> services[2];
  std::map<std::string, zel::Ref<orvel::IQueueProducer>> producers[2];
  std::size_t current = 0;
  std::map<std::string, Model> models;
  int number = 0;
};

TEST_P(QueueRandomTest, TwoServicesOnOneStoreAgreeWithTheModel) {
  const char* given = std::getenv("VELD_TEST_SEED");
  const auto seed = static_cast<unsigned>(given ? std::atoi(given) : GetParam());
  SCOPED_TRACE("seed " + std::to_string(seed) + "; VELD_TEST_SEED sets it");
  random.seed(seed);
  FaultyVfs::Register();
  options.vfs = FaultyVfs::name;  // for its speed: it doesn't sync
  options.shared = true;
  options.commitOperations = 1 + Draw(20);
  options.commitDelay = std::chrono::hours(1);  // what is written when follows from the seed alone
  for (auto& each : services) each = host::QueueService::Open(options);
  for (int step = 0; step < 400 && !HasFailure(); ++step) {
    Step();
    if (step % 20 == 19) Compare();
  }
  for (const auto& [queue, model] : models)
    EXPECT_THAT(Waiting(queue), testing::UnorderedElementsAreArray(model.waiting));
  for (auto& each : producers) each.clear();
  for (auto& each : services) each.Reset();
  EXPECT_THAT(Findings(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, QueueRandomTest, testing::Range(1, 7));

}  // namespace
}  // namespace veld_report::tests
