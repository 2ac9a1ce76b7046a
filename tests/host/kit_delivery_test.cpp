// When a kit sends, and how much at a time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "host/kit/host_kit.h"
#include "tests/host/manual_clock.h"
#include "tests/host/recording_sink.h"
#include "tests/host/serving_test.h"

namespace veld_report::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

class KitDelivery : public tests::ServingTest {
 protected:
  HostKitOptions Options(std::vector<KitEndpoint> endpoints) {
    HostKitOptions options;
    options.modulePath = VELD_MODULE_PATH;
    options.clock = clock;
    options.http.proxy = "";
    options.http.random = [] { return 1.0; };  // the longest waits
    options.queues.folder = Path("store");
    options.settings.endpoints = std::move(endpoints);
    return options;
  }
  // Lets the time pass in small steps, each with all that is due in it.
  void Pass(HostKit& kit, milliseconds time, milliseconds step = milliseconds(500)) {
    for (milliseconds passed(0); passed < time; passed += step) {
      clock->Advance(step);
      Settle(kit);
    }
  }
  // Waits until everything that is due has run: a marker is armed last on each timer, and no other sink runs.
  void Settle(HostKit& kit) {
    const auto runs = [&] { return kit.DrainTimer().RunsStarted() + kit.Timer().RunsStarted(); };
    std::uint64_t before = 0;
    do {
      before = runs();
      for (TimerService* timer : {&kit.DrainTimer(), &kit.Timer()}) {
        tests::RecordingSink marker(timer);
        timer->ArmTimer(&marker, 0);
        ASSERT_TRUE(marker.WaitForEnds(1));
      }
      ++markers;
    } while (runs() != before + 2);
  }
  std::uint64_t Cycles(HostKit& kit) const { return kit.Timer().RunsStarted() - markers; }
  static void Submit(HostKit& kit, int count, std::size_t bytes = 10) {
    for (int i = 0; i < count; ++i) kit.SubmitJson("", "{\"t\":\"" + std::string(bytes, 'x') + "\"}");
  }

  const std::shared_ptr<tests::ManualClock> clock = std::make_shared<tests::ManualClock>();
  std::uint64_t markers = 0;
};

// What is refused stays in its queue, so without a wait and a limit all of it would be sent again and again.
TEST_F(KitDelivery, ARefusalCostsOnePacketAndLongerAndLongerWaits) {
  for (const int status : {204, 301, 400, 404, 407, 413, 429, 500, 503}) {
    SCOPED_TRACE(status);
    std::atomic<bool> refuses = true;
    tests::ScriptedServer server(
        [&](const tests::ScriptedRequest&) { return tests::ScriptedReply::Status(refuses ? status : 200); });
    HostKitOptions options = Options({{server.Url()}});
    options.queues.folder = Path("store" + std::to_string(status));
    options.settings.packetLimit = 10;
    HostKit kit(options);
    markers = 0;
    Submit(kit, 100);
    Pass(kit, seconds(2));
    EXPECT_EQ(server.Requests().size(), 1u);
    for (int minute = 0; minute < 20; ++minute) {
      const std::uint64_t before = Cycles(kit);
      Pass(kit, minutes(1));
      EXPECT_LE(Cycles(kit) - before, 4u);
    }
    // At 0, 30 and 60 s, and from then on the waits double, up to five minutes.
    EXPECT_LE(server.Requests().size(), 14u);
    EXPECT_GE(server.Requests().size(), 6u);
    refuses = false;
    Pass(kit, minutes(5) + seconds(10), seconds(2));
    EXPECT_EQ(kit.Queues().TotalWaiting().items, 0) << "nobody came back when the wait was over";
  }
}

TEST_F(KitDelivery, APacketIsLimitedInBytesAndTheRestFollowsAtOnce) {
  tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  HostKitOptions options = Options({{server.Url()}});
  options.settings.packetLimitKb = 64;
  HostKit kit(options);
  Submit(kit, 20, 10'000);
  Submit(kit, 1, 200'000);
  Submit(kit, 20, 10'000);
  clock->Advance(seconds(1));  // once: no cycle waits for a timeout
  Settle(kit);
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 0);
  std::vector<std::size_t> sizes;
  for (const auto& request : server.Requests()) sizes.push_back(request.body.size());
  std::ranges::sort(sizes);
  // Six records of 10 KB each in 64 KiB, the large one alone, and what base-64 adds.
  ASSERT_EQ(sizes.size(), 9u);
  EXPECT_LT(sizes[7], 64 * 1024 * 4 / 3 + 500);
  EXPECT_GT(sizes[8], 200'000u);
}

TEST_F(KitDelivery, AnIntervalSpacesRequestsAndNotTheStore) {
  tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  HostKitOptions options = Options({{server.Url()}});
  options.settings.sendEveryS = 60;
  options.settings.packetLimitKb = 1;
  HostKit kit(options);
  for (int second = 0; second < 150; ++second) {
    Submit(kit, 1);
    Pass(kit, seconds(1));
  }
  EXPECT_EQ(kit.Queues().Ledgers().begin()->second.accepted.items, 150);
  // At 1, 61 and 121 s; the records of a minute are two packets, which follow each other.
  EXPECT_EQ(server.Requests().size(), 5u);
  EXPECT_LT(kit.Queues().TotalWaiting().items, 32);
  Pass(kit, seconds(60));
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 0) << "nobody came back when the interval was over";
  Submit(kit, 1);
  Pass(kit, seconds(2));
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 1);
  kit.SkipSendInterval();
  kit.BeginCycle();
  Settle(kit);
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 0);
}

}  // namespace
}  // namespace veld_report::host
