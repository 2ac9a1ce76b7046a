// Several processes on one store. Services share it in the same way whether they are in one process or not,
// so processes are started only where some are killed.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <thread>

#include "tests/host/queue_test_tools.h"
#include "tests/host/store_model.h"

namespace veld_report::tests {
namespace {

using testing::IsEmpty;

class QueueProcessesTest : public StoreTest {
 protected:
  QueueProcessesTest() { options.shared = true; }

  static constexpr int processCount = 4;
  static constexpr int each = 1500;
  static constexpr std::size_t atOnce = 20;

  Strings Log(const char* kind) { return ReadLines(folder / kind); }
  // Notes what was pushed after it was answered 0, and what is delivered before it is acknowledged.
  // An exception ends the process.
  void PushAndSend(int process) noexcept {
    Open();
    std::ofstream pushed(folder.Path() / "pushed", std::ios::app);
    std::ofstream delivered(folder.Path() / "delivered", std::ios::app);
    const auto producer = Producer("q");
    for (int i = 0; i < each; ++i) {
      const std::string text = std::to_string(process) + "-" + std::to_string(i);
      EXPECT_EQ(PushText(*producer, text), zel::sOk);
      pushed << text << std::endl;
      if (i % 50 != 0) continue;
      const auto reader = Reader("q");
      for (const ReadItem& item : ReadAll(*reader, atOnce)) {
        delivered << item.bytes << std::endl;
        EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
      }
    }
  }
};

TEST_F(QueueProcessesTest, AnUpgradeThatIsKilledAtAnyMomentLosesNothing) {
  options.shared = false;
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
    const auto begin = std::chrono::steady_clock::now();
    const pid_t upgrading = fork();
    if (upgrading == 0) {
      Open();
      _exit(0);
    }
    int status = 0;
    bool ended = false;
    const std::filesystem::path half = StorePath().string() + ".upgrade";
    // Every other one as soon as the new store is begun, however fast the machine is.
    if (moment < moments && moment % 4 < 2) std::this_thread::sleep_for(whole * moment / moments);
    while (moment % 4 >= 2 && !ended && !std::filesystem::exists(half))
      ended = waitpid(upgrading, &status, WNOHANG) == upgrading;
    if (moment < moments && !ended) kill(upgrading, SIGKILL);
    if (!ended) {
      ASSERT_EQ(waitpid(upgrading, &status, 0), upgrading);
    }
    if (moment == moments) whole = std::chrono::steady_clock::now() - begin;
    interrupted += WIFSIGNALED(status) && std::filesystem::exists(half);
    Open();
    ASSERT_EQ(StoreModel::Of(*service), holding) << "killed at " << moment << " of " << moments;
  }
  EXPECT_GT(interrupted, 0) << "no kill came within the upgrade";
}

TEST_F(QueueProcessesTest, FourProcessesTwoKilledLoseAndRepeatNothing) {
  options.commitEveryPush = true;  // what was answered 0 must survive the kill
  pid_t ids[processCount];
  for (int process = 0; process < processCount; ++process) {
    if ((ids[process] = fork()) != 0) continue;
    PushAndSend(process);
    // No destructors of the test program, and no reports of its own.
    _exit(HasFailure() ? 2 : 0);
  }
  EXPECT_TRUE(Eventually([&] { return Log("pushed").size() > each / 2; }));
  for (int process = 0; process < processCount; ++process) {
    const bool isKilled = process < 2;
    if (isKilled) kill(ids[process], SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(ids[process], &status, 0), ids[process]);
    EXPECT_TRUE(isKilled || status == 0) << status;
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
