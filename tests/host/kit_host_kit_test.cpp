// The whole host around the built module, against real servers on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/kit/host_kit.h"
#include "host/services/queue_name.h"
#include "tests/common/waiting.h"
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
};

TEST_F(Kit, AServerIsReachedByIPv6) {
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
  RunCycle(kit);
  EXPECT_THAT(Stored("out"), testing::ElementsAre(R"({"n":1})"));
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
  EXPECT_TRUE(tests::Eventually([&] { return Stored("out").size() == 6; }, seconds(10)));

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
