// Several processes on one store. Services share it in the same way whether they are in one process or not,
// so processes are started only where some are killed. They are this program once more: FOLDER opens the
// store when it is told to, and FOLDER NUMBER pushes to it and sends from it.
#include <gmock/gmock.h>

#include <deque>
#include <fstream>
#include <iostream>
#include <set>

#include "tests/common/program.h"
#include "tests/host/queue_test_tools.h"
#include "tests/host/store_model.h"

namespace veld_report::tests {
namespace {

using testing::IsEmpty;

constexpr int each = 1500;
constexpr std::size_t atOnce = 20;
std::string thisProgram;

class StoreUser : QueueOperations {
 public:
  explicit StoreUser(host::QueueServiceOptions options)
      : folder_(options.folder), service_(host::QueueService::Open(std::move(options))) {}

  // Notes what was pushed after it was answered 0, and what is delivered before it is acknowledged.
  void PushAndSend(const std::string& process) {
    std::ofstream pushed(folder_ / "pushed", std::ios::app | std::ios::binary);
    std::ofstream delivered(folder_ / "delivered", std::ios::app | std::ios::binary);
    const auto producer = Producer("q");
    for (int i = 0; i < each; ++i) {
      const std::string text = process + "-" + std::to_string(i);
      EXPECT_EQ(PushText(*producer, text), zel::sOk);
      (pushed << text + "\n").flush();
      if (i % 50 != 0) continue;
      const auto reader = Reader("q");
      for (const ReadItem& item : ReadAll(*reader, atOnce)) {
        (delivered << item.bytes + "\n").flush();
        EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
      }
    }
  }

 private:
  orvel::IQueueFactory& Factory() override { return *service_; }

  const std::filesystem::path folder_;
  const zel::Ref<host::QueueService> service_;
};

class QueueProcessesTest : public StoreTest {
 protected:
  Strings Log(const char* kind) { return ReadLines(folder / kind); }
};

TEST_F(QueueProcessesTest, AnUpgradeThatIsKilledAtAnyMomentLosesNothing) {
  Open();
  for (int i = 0; i < 800; ++i)
    Push(i % 3 == 0 ? "a" : "b", Numbered(static_cast<std::size_t>(i)) + std::string(300, '.'));
  const StoreModel holding = StoreModel::Of(*service);
  constexpr int moments = 24;
  std::chrono::nanoseconds whole{};
  int interrupted = 0;
  // The first one isn't killed, and shows how long it takes.
  for (int moment = moments; moment > 0; --moment) {
    service.Reset();
    WriteInLayout(moment % 2 + 1, holding, StorePath());
    Program upgrading({thisProgram, folder.Path().string()});
    ASSERT_TRUE(Eventually([&] { return !upgrading.Output().empty(); }));
    const auto begin = std::chrono::steady_clock::now();
    upgrading.EndInput();
    const std::filesystem::path half = StorePath().string() + ".upgrade";
    // Every other one as soon as the new store is begun, however fast the machine is.
    if (moment == moments) {
      EXPECT_EQ(upgrading.Wait(), 0) << upgrading.Errors();
      whole = std::chrono::steady_clock::now() - begin;
    } else if (moment % 4 < 2) {
      std::this_thread::sleep_for(whole * moment / moments);
    } else {
      EXPECT_TRUE(Eventually([&] { return upgrading.HasEnded() || std::filesystem::exists(half); }));
    }
    upgrading.Kill();
    const bool wasKilled = moment < moments && upgrading.Wait() != 0;
    interrupted += wasKilled && std::filesystem::exists(half);
    Open();
    ASSERT_EQ(StoreModel::Of(*service), holding) << "killed at " << moment << " of " << moments;
  }
  EXPECT_GT(interrupted, 0) << "no kill came within the upgrade";
}

TEST_F(QueueProcessesTest, FourProcessesTwoKilledLoseAndRepeatNothing) {
  std::deque<Program> processes;
  for (const char* number : {"0", "1", "2", "3"})
    processes.emplace_back(Strings{thisProgram, folder.Path().string(), number});
  EXPECT_TRUE(Eventually([&] { return Log("pushed").size() > each / 2; }));
  for (int process = 0; process < 4; ++process) {
    Program& running = processes[static_cast<std::size_t>(process)];
    const bool isKilled = process < 2;
    if (isKilled) running.Kill();
    const int code = running.Wait();
    EXPECT_TRUE(isKilled || code == 0) << running.Output() << running.Errors();
  }

  Open();
  const Strings waiting = Waiting("q");
  EXPECT_EQ(Ledger().waiting.items, static_cast<std::int64_t>(waiting.size()));
  std::multiset<std::string> seen(waiting.begin(), waiting.end());
  for (const std::string& text : Log("delivered")) seen.insert(text);
  for (const std::string& text : Log("pushed")) EXPECT_TRUE(seen.contains(text)) << text << " is lost";
  const std::set<std::string> different(seen.begin(), seen.end());
  EXPECT_LE(seen.size() - different.size(), 2 * atOnce) << "no more than a visit of each killed one";
  EXPECT_THAT(Findings(), IsEmpty());
}

}  // namespace
}  // namespace veld_report::tests

int main(int count, char** arguments) {
  using namespace veld_report::tests;
  thisProgram = arguments[0];
  if (count > 1 && arguments[1][0] != '-') {
    const bool isPushing = count == 3;
    if (!isPushing) std::cout << "ready" << std::endl << std::cin.rdbuf();
    // What was answered 0 must survive the kill.
    StoreUser user({.folder = arguments[1], .commitEveryPush = isPushing, .shared = isPushing});
    if (isPushing) user.PushAndSend(arguments[2]);
    return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
  }
  testing::InitGoogleMock(&count, arguments);
  return RUN_ALL_TESTS();
}
