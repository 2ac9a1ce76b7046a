// Consent: once sending is forbidden nothing leaves any more, whatever else is going on.
#include <gmock/gmock.h>

#include <filesystem>

#include "tests/host/reporter_test_tools.h"

namespace veld_report {
namespace {

class Consent : public ReporterTest {};

TEST_F(Consent, NoRequestStartsOnceSendingIsForbidden) {
  tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  ReporterOptions options = Options({{server.Url()}});
  options.packetLimit = 1;
  Reporter reporter(options);
  constexpr int records = 3000;
  for (int i = 0; i < records; ++i) reporter.SendJson(R"({"n":1})");
  ASSERT_TRUE(server.WaitForRequests(10));
  reporter.AllowSending(false);
  // The one that was under way may have reached the server whole.
  const std::size_t sent = server.Requests().size() + 1;
  EXPECT_FALSE(reporter.Flush(milliseconds(500)));
  EXPECT_LE(server.Requests().size(), sent);
  EXPECT_LT(sent, records) << "nothing was left to hold back";
  reporter.AllowSending(true);
  EXPECT_TRUE(reporter.Flush(seconds(30)));
  EXPECT_THAT(server.Requests().size(), testing::AllOf(testing::Ge(records), testing::Le(records + 1)));
}

// Each way in which a Forget ends, begun while a request waits for a server that never answers. A withdrawal
// comes from the listener, which hears of the request that the Forget cuts, so in its middle.
TEST_F(Consent, ForgetSendsNothingAndLeavesTheLastWordStanding) {
  const struct {
    const char* name;
    int forgets;
    bool fails, withdrawn;
  } cases[] = {
      {"one", 1, false, false},
      {"two at once", 2, false, false},
      {"one that fails", 1, true, false},
      {"one in which consent is withdrawn", 1, false, true},
      {"one that fails, in which consent is withdrawn", 1, true, true},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.name);
    std::atomic<bool> answers{false};
    tests::ScriptedServer server([&](const tests::ScriptedRequest& request) {
      return answers ? tests::ScriptedReply::Status(200) : NeverAnswers(request);
    });
    const std::string store = std::string("store ") + each.name;
    Reporter reporter(Options({{server.Url()}}, store));
    reporter.SendJson(R"({"secret":1})");
    ASSERT_TRUE(server.WaitForRequests(1));
    reporter.SendJson(R"({"secret too":1})");
    reporter.SetListener([&](const FinishedRequest&) {
      answers = true;
      if (each.withdrawn) reporter.AllowSending(false);
    });
    // A folder that isn't empty stands where a damaged file would be deleted.
    const std::string obstacle = Path(store) + "/veld_rep.queue.damaged-20260102T030405Z/full";
    if (each.fails) std::filesystem::create_directories(obstacle);
    std::vector<std::thread> threads;
    for (int i = 0; i < each.forgets; ++i) {
      threads.emplace_back([&] {
        if (each.fails) {
          EXPECT_THROW(reporter.Forget(), ReporterError);
        } else {
          EXPECT_NO_THROW(reporter.Forget());
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(server.Requests().size(), 1u);
    EXPECT_EQ(reporter.Stats().total.waiting.items, 0);
    reporter.SendJson(R"({"later":1})");
    EXPECT_EQ(reporter.Flush(each.withdrawn ? milliseconds(300) : milliseconds(20000)), !each.withdrawn);
    EXPECT_EQ(server.Requests().size(), each.withdrawn ? 1u : 2u);
  }
}

}  // namespace
}  // namespace veld_report
