// When a kit sends, how much at a time, and what it notes of its urls.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <stdexcept>

#include "host/kit/host_kit.h"
#include "host/services/queue_name.h"
#include "server/body_decoder.h"
#include "server/message_check.h"
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
  for (const int status : {204, 400, 404, 503}) {
    SCOPED_TRACE(status);
    const bool divides = status == 400;
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
    EXPECT_EQ(server.Requests().size(), divides ? 3u : 1u);
    for (int minute = 0; minute < 20; ++minute) {
      const std::uint64_t before = Cycles(kit);
      Pass(kit, minutes(1), seconds(5));
      EXPECT_LE(Cycles(kit) - before, divides ? 8u : 4u);
    }
    // At 0, 30 and 60 s, and from then on the waits double, up to five minutes. A packet that is divided is
    // small, and so are the trials of the first record.
    EXPECT_LE(server.Requests().size(), divides ? 24u : 14u);
    EXPECT_GE(server.Requests().size(), 6u);
    refuses = false;
    Pass(kit, minutes(5) + seconds(10), seconds(5));
    EXPECT_EQ(kit.Queues().TotalWaiting().items, 0) << "nobody came back when the wait was over";
  }
}

// A crash takes what isn't in the store, while each request costs more than a hundred records.
TEST_F(KitDelivery, RecordsAreStoredSoonAndSentAtTheUsualPace) {
  tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  HostKitOptions options = Options({{server.Url()}});
  options.storeWithin = milliseconds(20);
  HostKit kit(options);
  for (int sent = 1; sent <= 140; ++sent) {
    Submit(kit, 1);
    Pass(kit, milliseconds(20), milliseconds(20));
    ASSERT_EQ(kit.Queues().Ledgers().begin()->second.accepted.items, sent);
  }
  EXPECT_EQ(server.Requests().size(), 2u) << "in 2.8 s, at 1.0 and 2.0";
  Submit(kit, 1);
  ASSERT_TRUE(kit.RunCycle(std::chrono::steady_clock::now() + seconds(100)));
  EXPECT_EQ(server.Requests().size(), 3u) << "whoever asks for a cycle gets it at once";
}

std::vector<int> NumbersIn(const tests::ScriptedRequest& request) {
  const std::string payload = server::CheckMessage(request.body, {}).payloadText;
  std::vector<int> numbers;
  for (std::size_t at = 0; (at = payload.find("\"n\":", at)) != std::string::npos;) {
    numbers.push_back(std::atoi(payload.c_str() + (at += 4)));
  }
  return numbers;
}

// A record that a server never accepts would hold up everything after it.
TEST_F(KitDelivery, ARefusedRecordStandsBackAndIsTriedAgain) {
  std::vector<int> accepted;
  std::vector<int> alone;
  std::atomic<bool> mended = false;
  tests::ScriptedServer server([&](const tests::ScriptedRequest& request) {
    const std::vector<int> numbers = NumbersIn(request);
    if (numbers.size() == 1) alone.push_back(numbers[0]);
    if (!mended &&
        std::ranges::any_of(numbers, [](int each) { return each == 0 || each == 137 || each == 138; })) {
      return tests::ScriptedReply::Status(422);
    }
    accepted.insert(accepted.end(), numbers.begin(), numbers.end());
    return tests::ScriptedReply::Status(200);
  });
  HostKit kit(Options({{server.Url()}}));
  for (int i = 0; i < 300; ++i) kit.SubmitJson("", "{\"n\":" + std::to_string(i) + "}");
  Pass(kit, minutes(3), seconds(1));
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 3);
  // To halve a packet down to one takes seven requests, and to return to whole ones as many.
  EXPECT_LE(server.Requests().size(), 50u);
  std::vector<int> good;
  for (int i = 1; i < 300; ++i) {
    if (i != 137 && i != 138) good.push_back(i);
  }
  EXPECT_EQ(accepted, good);
  const auto state = kit.Http().States().at(0);
  EXPECT_EQ(state.lastStatus, 422);
  EXPECT_FALSE(state.waitsUntil) << "a trial of what is known to be refused holds back nothing";

  const std::size_t before = server.Requests().size();
  Pass(kit, minutes(30), seconds(5));
  EXPECT_LE(server.Requests().size() - before, 8u);
  kit.SubmitJson("", "{\"n\":300}");
  Pass(kit, seconds(2));
  EXPECT_EQ(accepted.back(), 300);
  EXPECT_EQ(kit.Http().States().at(0).lastStatus, 422) << "three records still wait";
  mended = true;
  Pass(kit, minutes(5) + seconds(10), seconds(5));
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 0);
  EXPECT_EQ(kit.Http().States().at(0).lastError, "");
  EXPECT_THAT(alone, testing::IsSupersetOf({0, 137, 138, 0, 137, 138}));
}

// Such a server costs one request, and no record is taken for a bad one.
TEST_F(KitDelivery, AServerThatRefusesCompressionGetsPlainBodiesFromThenOn) {
  const auto encoded = [](const tests::ScriptedRequest& request, const char* coding) {
    return request.head.find(std::string("\r\nContent-Encoding: ") + coding) != std::string::npos;
  };
  tests::ScriptedServer plain(
      [&](const auto& request) { return tests::ScriptedReply::Status(encoded(request, "") ? 415 : 200); });
  tests::ScriptedServer any(tests::ScriptedReply::Status(200));
  const auto real = Serve("real");
  HostKitOptions options =
      Options({{plain.Url(), "", {}, "gzip"}, {any.Url(), "", {}, "gzip"}, {real->Url(), "", {}, "zstd"}});
  options.settings.packetLimit = 10;
  std::atomic<int> answers = 0;
  options.onRequestFinished = [&](const FinishedRequest& request) {
    answers += request.status == 200 ? 1 : 100;
  };
  HostKit kit(options);
  Submit(kit, 100, 100);
  Pass(kit, seconds(5));
  EXPECT_EQ(answers, 30);
  const auto requests = plain.Requests();
  ASSERT_EQ(requests.size(), 11u);
  EXPECT_TRUE(encoded(requests[0], "gzip"));
  const auto decoded = [](const tests::ScriptedRequest& request, server::BodyCoding coding) {
    return server::DecodeBody(coding, request.body, 1 << 20, [](std::size_t) { return true; }).text;
  };
  EXPECT_EQ(decoded(requests[0], server::BodyCoding::gzip), requests[1].body);
  EXPECT_LT(requests[0].body.size(), requests[1].body.size() / 2);
  for (const auto& request : any.Requests()) EXPECT_TRUE(encoded(request, "gzip"));
  EXPECT_EQ(Stored("real").size(), 100u);
  for (const auto& state : kit.Http().States()) EXPECT_EQ(state.lastError, "");

  // What doesn't get smaller, and what was refused before, goes plain; other settings don't change that.
  options.settings.endpoints = {{plain.Url(), "", {}, "zstd"}, {any.Url(), "", {}, "gzip"}};
  kit.SetSettings(options.settings);
  kit.SubmitJson("", "{}");
  Pass(kit, seconds(5));
  EXPECT_FALSE(encoded(any.Requests().back(), ""));
  EXPECT_EQ(plain.Requests().size(), 12u);
  EXPECT_EQ(plain.Requests().back().body, any.Requests().back().body);
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

#ifndef _WIN32  // the servers of the tests listen on IPv4 there
TEST_F(KitDelivery, AServerIsReachedByIPv6) {
  server::ReportServerOptions serverOptions;
  serverOptions.address = "::1";
  serverOptions.sinks = {{Path("out")}};
  std::unique_ptr<server::ReportServer> server;
  try {
    server = std::make_unique<server::ReportServer>(serverOptions);
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.what();
  }
  HostKit kit(Options({{server->Url()}}));
  kit.SubmitJson("", R"({"n":1})");
  Pass(kit, seconds(2));
  EXPECT_THAT(Stored("out"), testing::ElementsAre(R"({"n":1})"));
}
#endif

TEST_F(KitDelivery, AUrlInBackoffIsReportedAndHoldsNoOtherUp) {
  const tests::ScriptedServer busy(tests::ScriptedReply::Status(503, "Retry-After: 600\r\n"));
  const auto healthy = Serve("out");
  std::string busyUrl = busy.Url("/in");
  busyUrl.insert(busyUrl.find("//") + 2, "user:secret@");
  std::string trace;
  HostKitOptions options = Options({{busyUrl, "busy"}, {healthy->Url(), "healthy"}});
  options.settings.sendTimeoutS = 3600;
  options.trace = {.level = 700, .sink = [&](std::string_view line) { trace.append(line).append("\n"); }};
  HostKit kit(options);
  kit.SubmitJson("busy", R"({"n":1})");
  for (int i = 0; i < 6; ++i) {
    kit.SubmitJson("healthy", "{}");
    Pass(kit, seconds(2));
    // Whatever the order of each walk, the cycle that the backoff cut short came again.
    EXPECT_EQ(Stored("out").size(), i + 1u);
  }

  const auto states = UrlStateFile::Read(Path("store"));
  ASSERT_EQ(states.size(), 2u);
  EXPECT_EQ(states[0].queueName, QueueNameOfUrl(busyUrl));
  EXPECT_EQ(states[0].http.url, busy.Url("/in"));
  EXPECT_TRUE(states[0].http.waitsUntil.has_value());
  EXPECT_FALSE(states[1].http.waitsUntil.has_value());
  kit.Close();
  EXPECT_FALSE(UrlStateFile::Read(Path("store"))[0].http.waitsUntil.has_value());
  EXPECT_THAT(trace, testing::HasSubstr("MakeRequest for url " + busy.Url("/in")));
  EXPECT_THAT(trace, testing::Not(testing::HasSubstr("secret")));
}

}  // namespace
}  // namespace veld_report::host
