// The whole host around the built module, against real servers on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "host/kit/host_kit.h"
#include "host/kit/module_path.h"
#include "host/services/queue_name.h"
#include "host/signature/ed25519_verifier.h"
#include "host/signature/key_files.h"
#include "tests/host/serving_test.h"

namespace veld_report::host {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

class Kit : public tests::ServingTest {
 protected:
  HostKitOptions Options(std::vector<KitEndpoint> endpoints) {
    HostKitOptions options;
    options.modulePath = VELD_MODULE_PATH;
    options.http.proxy = "";  // whatever the environment says
    options.queues.folder = Path("store");
    options.settings.endpoints = std::move(endpoints);
    return options;
  }
  // One whole cycle, from this moment on.
  static void RunCycle(HostKit& kit) { ASSERT_TRUE(kit.RunCycle(steady_clock::now() + seconds(20))); }
  // One record, in one cycle, at the server that stores into "out".
  void ExpectARecordArrives(const HostKitOptions& options, const std::string& record = R"({"n":1})") {
    HostKit kit(options);
    kit.SubmitJson("", record);
    RunCycle(kit);
    EXPECT_THAT(Stored("out"), testing::ElementsAre(record));
  }
};

TEST_F(Kit, ASecondAddressIsTriedIfTheFirstDoesNotAnswer) {
  const auto server = Serve("out");
  const std::string port = std::to_string(server->Port());
  HostKitOptions options = Options({{"http://two-addresses.test:" + port + "/in"}});
  options.http.resolve = {"two-addresses.test:" + port + ":127.0.0.2,127.0.0.1"};
  ExpectARecordArrives(options);
}

TEST_F(Kit, AServerIsReachedByIPv6) {
  server::ReportServerOptions serverOptions;
  serverOptions.address = "::1";
  serverOptions.outPath = Path("out");
  std::unique_ptr<server::ReportServer> server;
  try {
    server = std::make_unique<server::ReportServer>(serverOptions);
  } catch (const std::runtime_error& error) {
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << error.what();
  }
  ExpectARecordArrives(Options({{server->Url()}}));
}

TEST_F(Kit, SignedMessagesPassTheVerifierAndListenersHear) {
  const KeyFiles files = GenerateEd25519KeyPair(Path("key"));
  const Ed25519Verifier verifier(Ed25519Key::PublicFromFile(files.publicPath));
  const auto server = Serve("out", 0, [&](std::string_view payload, std::string_view block) {
    return verifier.Check(payload, block);
  });
  std::vector<FinishedRequest> finished;
  HostKitOptions options = Options({{server->Url()}});
  options.signingKeyFile = files.privatePath;
  options.onRequestFinished = [&](const FinishedRequest& request) { finished.push_back(request); };
  ExpectARecordArrives(options, R"({"text":"a \"quoted\" \u00e9"})");
  ASSERT_EQ(finished.size(), 1u);
  EXPECT_EQ(finished[0].url, server->Url());
  EXPECT_EQ(finished[0].result, zel::sOk);
}

TEST_F(Kit, AUrlInBackoffIsReportedAndHoldsNoOtherUp) {
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
  RunCycle(kit);
  for (int i = 0; i < 6; ++i) {
    kit.SubmitJson("healthy", "{\"n\":" + std::to_string(i) + "}");
    RunCycle(kit);
  }
  // Whatever the order of each walk, the cycle that the backoff cut short came again.
  const auto deadline = steady_clock::now() + seconds(10);
  for (std::uint64_t runs = 0; Stored("out").size() < 6 && steady_clock::now() < deadline;) {
    kit.Timer().WaitForRun(std::exchange(runs, kit.Timer().RunsStarted()), steady_clock::now() + seconds(1));
  }
  EXPECT_EQ(Stored("out").size(), 6u);

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

TEST_F(Kit, WhatAnEarlierRunLeftGoesAfterATrigger) {
  const std::string url = "http://127.0.0.1:" + std::to_string(tests::ClosedPort());
  {
    HostKit kit(Options({{url}}));
    kit.SubmitJson("", R"({"n":1})");
  }  // closed at once: the record has been in memory only
  const auto server = Serve("out");
  HostKit kit(Options({{url}}));
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 1);
  kit.TriggerCycle();
  RunCycle(kit);
  EXPECT_EQ(kit.Queues().TotalWaiting().items, 1);
  // Another address is another queue; the old one goes with its items, and the ledger says so.
  kit.SetSettings({.endpoints = {{server->Url()}}});
  kit.SubmitJson("", R"({"n":2})");
  RunCycle(kit);
  EXPECT_THAT(Stored("out"), testing::ElementsAre(R"({"n":2})"));
  EXPECT_EQ(kit.Queues().Ledgers().at(QueueNameOfUrl(url)).removed.items, 1);
}

TEST_F(Kit, TheModuleIsFoundWithoutAPath) {
  EXPECT_TRUE(std::filesystem::equivalent(FindModule(), VELD_MODULE_PATH));
}

TEST_F(Kit, EachMistakeIsNamedAndLeavesTheStoreFree) {
  const std::string url = "http://127.0.0.1:1";
  struct Case {
    std::function<void(HostKitOptions&)> spoil;
    std::string message;
  };
  const Case cases[] = {
      {[](auto& o) { o.modulePath = "/nonexistent.so"; }, "/nonexistent.so"},
      {[](auto& o) { o.modulePath = "libm.so.6"; }, "exports no function zelGetObjectFactory"},
      {[](auto& o) { o.settings.endpoints[0].url = "ftp://h"; },
       "endpoint 1 (ftp://h): the url must begin with http:// or https://"},
      {[](auto& o) { o.settings.endpoints[0].url = "http://\xff"; }, "not valid UTF-8 at byte 7"},
      {[](auto& o) { o.settings.endpoints[0].consumer = "veld_report.trigger"; },
       "this consumer name is reserved"},
      {[](auto& o) { o.settings.endpoints[0].certificates = {"no certificate"}; }, "endpoint 1"},
      {[](auto& o) { o.settings.queueLimitKb = 4194304; }, "it must be 1 to 4194303"},
      {[](auto& o) { o.settings.sendTimeoutS = 4294968; }, "it must be 0 to 4294967"},
      {[](auto& o) { o.signingKeyFile = "/nonexistent.pem"; }, "key file /nonexistent.pem: No such file"},
      {[](auto& o) { o.trace.path = "/nonexistent/trace"; }, "trace file /nonexistent/trace"},
  };
  for (const Case& each : cases) {
    HostKitOptions options = Options({{url}});
    each.spoil(options);
    try {
      HostKit kit(options);
      ADD_FAILURE() << "accepted, without: " << each.message;
    } catch (const std::exception& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr(each.message));
    }
  }
  HostKit kit(Options({{url}}));
  EXPECT_THROW(kit.SetSettings({.endpoints = {{"gopher://h"}}}), std::invalid_argument);
  EXPECT_TRUE(kit.SubmitJson("", "{}").Accepted());
}

}  // namespace
}  // namespace veld_report::host
