// Random operations on a store that two services share, against the model of what must be in it.
#include <gmock/gmock.h>

#include <random>

#include "tests/host/faulty_vfs.h"
#include "tests/host/queue_test_tools.h"
#include "tests/host/store_model.h"

namespace veld_report::tests {
namespace {

class QueueRandomTest : public StoreTest, public testing::WithParamInterface<int> {
 protected:
  std::size_t Draw(std::size_t below) { return random() % below; }

  void Push(const std::string& queue) {
    auto& producer = producers[current][queue];
    if (!producer) producer = Producer(queue, 300);
    const std::string text = Numbered(number++) + std::string(Draw(60), '.');
    Strings evicted;
    const bool makesRoom = Draw(2) == 0;
    const auto code = makesRoom ? EvictAndPush(*producer, queue, text, &evicted) : PushText(*producer, text);
    for (const std::string& gone : evicted) model.Left(queue, gone, &QueueLedger::evicted);
    model.Pushed(queue, text, code);
  }
  void Step() {
    current = Draw(2);
    service = services[current];
    const std::string queue(1, "abc"[Draw(3)]);
    const std::size_t kind = Draw(10);
    if (kind == 0) {
      services[1 - current]->Commit();
      service->ClearQueue(queue);
      model.Removed(queue);
    } else if (kind == 1) {
      producers[current].clear();
      services[current].Reset();
      Open();
      services[current] = service;
    } else if (kind < 5) {
      Reader("none");  // what is read directly after a refused push counts as evicted
      const auto fate = [&](std::size_t) { return Draw(4) == 0 ? Fate::givenBack : Fate::acknowledged; };
      model.Visit(queue, *Reader(queue), Draw(5), fate);
    } else {
      Push(queue);
    }
  }

  std::mt19937_64 random;
  zel::Ref<host::QueueService> services[2];
  std::map<std::string, zel::Ref<orvel::IQueueProducer>> producers[2];
  std::size_t current = 0;
  StoreModel model;
  std::size_t number = 0;
};

TEST_P(QueueRandomTest, TwoServicesOnOneStoreAgreeWithTheModel) {
  const auto seed = FromEnvironment("VELD_TEST_SEED", GetParam());
  SCOPED_TRACE("seed " + std::to_string(seed) + "; VELD_TEST_SEED sets it");
  random.seed(static_cast<std::uint64_t>(seed));
  FaultyVfs::Register();
  options.vfs = FaultyVfs::name;  // for its speed: it doesn't sync
  options.shared = true;
  options.commitOperations = 1 + Draw(20);
  options.commitDelay = std::chrono::hours(1);  // what is written when follows from the seed alone
  for (auto& each : services) each = host::QueueService::Open(options);
  for (int step = 0; step < 400 && !HasFailure(); ++step) {
    Step();
    if (step % 20 != 19) continue;
    // Both must come to the model's figures, with their own operations written or not.
    for (std::size_t i = 0; i < 2; ++i) {
      services[1 - i]->Commit();
      EXPECT_EQ(StoreModel::Of(*services[i]).Sorted(), model.Sorted());
    }
  }
  for (auto& each : producers) each.clear();
  for (auto& each : services) each.Reset();
  EXPECT_THAT(Findings(), testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, QueueRandomTest, testing::Range(1, 7));

}  // namespace
}  // namespace veld_report::tests
