// What the options of the client add to a request, and how they limit it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/host/http_fakes.h"
#include "tests/host/scripted_server.h"

namespace veld_report::tests {
namespace {

// A total limit would cut off a large packet on a slow link again and again.
TEST(HttpProgress, AStalledRequestEndsAndASlowOneGoesOn) {
  host::HttpClientOptions options = Direct();
  options.stallTimeoutMs = 200;
  options.stallBytesPerSecond = 10;
  options.totalTimeoutMs = 1500;
  const HttpKit kit(options);
  const struct {
    ScriptedReply reply;
    const char* error;
  } cases[] = {{{"", ScriptedReply::never}, "fewer than 10 bytes a second in 200 ms"},
               {{"HTTP/1.1 200 OK\r\n\r\n", ScriptedReply::endless, std::chrono::milliseconds(5)},
                "timed out after 15"}};
  for (const auto& each : cases) {
    ScriptedServer server(each.reply);
    const auto call = kit.client.Start(server.Url());
    EXPECT_EQ(call.Wait(), zel::eOperationTimeout);
    std::string errors;
    for (const auto& state : kit.factory->States())
      errors += state.url == server.Url() ? state.lastError : "";
    EXPECT_THAT(errors, testing::HasSubstr(each.error));
  }
}

TEST(HttpHeaders, TheApplicationsOwnGoWithEachRequest) {
  host::HttpClientOptions options = Direct();
  options.headers = {"X-Key: a:b", "X-Other:c"};
  options.userAgent = "app/1.2 (test)";
  const HttpKit kit(options);
  ScriptedServer server(ScriptedReply::Status(200));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(kit.client.Send(server.Url())->status, 200);
  for (const ScriptedRequest& request : server.Requests()) {
    for (const char* line : {"X-Key: a:b\r\n", "X-Other:c\r\n", "User-Agent: app/1.2 (test)\r\n",
                             "Content-Type: application/json\r\n"}) {
      EXPECT_THAT(request.head + "\r\n", testing::HasSubstr(line));
    }
  }
}

}  // namespace
}  // namespace veld_report::tests
