// Sending, flushing, consent, statistics, settings and listeners of the reporter, against real servers on
// loopback.
#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <tuple>

#include "tests/common/fits.h"
#include "tests/common/waiting.h"
#include "tests/host/reporter_test_tools.h"

namespace application {

struct Started {
  std::string version{};
  std::int64_t startupMs = 0;
};
VELD_RECORD(Started, 0x5a17c0de, version, startupMs)

}  // namespace application

namespace veld_report {
namespace {

class Sending : public ReporterTest {};

TEST_F(Sending, AfterAFlushEveryFormOfRecordIsTheSameAtEveryServer) {
  const auto first = Serve("first"), second = Serve("second");
  ReporterOptions options = Options({{first->Url()}, {second->Url()}});
  options.stamp = true;
  options.common = {{"app", "one"}};
  Reporter reporter(options);
  reporter.Send(RecordBuilder().Add("n", 1));
  Settings settings = reporter.CurrentSettings();
  settings.common.push_back({"app", "again"});
  EXPECT_EQ(reporter.TrySetSettings(settings), zel::eInvalidArgument);
  settings.common = {{"app", "two"}};
  reporter.SetSettings(settings);
  reporter.Send(application::Started{"4.2.0", 312});
  EXPECT_EQ(reporter.TrySend(application::Started{}), zel::sOk);
  reporter.SendJson(R"({"text": 1})");
  // Looked at while the reporter lives on: the flush itself has brought them there.
  EXPECT_TRUE(reporter.Flush(seconds(100)));
  const std::string stamp = R"("recordId":"[0-9a-f-]{36}","recordTime":"[0-9T:.-]{23}Z")";
  EXPECT_THAT(
      Stored("first"),
      testing::ElementsAre(tests::Fits(R"(\{"n":1,"app":"one",)" + stamp + "\\}"),
                           tests::Fits(R"(\{"version":"4.2.0","startupMs":312,"app":"two",)" + stamp + "\\}"),
                           tests::Fits(R"(\{"version":"","startupMs":0,"app":"two",)" + stamp + "\\}"),
                           tests::Fits(R"(\{"text": 1,"app":"two",)" + stamp + "\\}")));
  EXPECT_EQ(Stored("first"), Stored("second"));
}

// One endpoint works and one doesn't: the flush must not be content with the half of it.
TEST_F(Sending, FlushIsFalseUntilEveryQueueIsDelivered) {
  const std::uint16_t port = tests::ClosedPort();
  const auto first = Serve("first");
  ReporterOptions options = Options({{first->Url()}, {"http://127.0.0.1:" + std::to_string(port)}});
  options.retryAfter = seconds(600);
  Reporter reporter(options);
  reporter.SendJson(R"({"n":1})");
  EXPECT_FALSE(reporter.Flush(seconds(1)));
  EXPECT_TRUE(tests::Eventually([&] { return !Stored("first").empty(); }));
  EXPECT_FALSE(reporter.Flush(milliseconds(100)));
  EXPECT_TRUE(tests::Eventually([&] { return reporter.Stats().total.waiting.items == 1; }));
  // The server comes up while a flush waits: it tries again by itself, long before the retry.
  std::unique_ptr<server::ReportServer> second;
  std::thread starter([&] { EXPECT_NO_THROW(second = Serve("second", port)); });
  EXPECT_TRUE(reporter.Flush(seconds(100)));
  starter.join();
  EXPECT_THAT(Stored("second"), testing::ElementsAre(R"({"n":1})"));
}

TEST_F(Sending, RefusedRecordsSayWhyAndAreCounted) {
  Reporter reporter(Options({{"http://127.0.0.1:1", "product"}}));
  std::string message;
  EXPECT_EQ(reporter.TrySendJson("{\"a\":}", "", &message), zel::eInvalidArgument);
  EXPECT_THAT(message, testing::HasSubstr("the text isn't one JSON value"));
  EXPECT_EQ(reporter.TrySendJson("{\"a\":18446744073709551616}", "", &message), zel::eInvalidArgument);
  EXPECT_THAT(message, testing::HasSubstr("an integer beyond 64 bits (send that as text)"));
  EXPECT_EQ(reporter.TrySendJson("[{}]", "", &message), zel::eInvalidArgument);
  EXPECT_THAT(message, testing::HasSubstr("isn't a JSON object"));
  EXPECT_EQ(reporter.TrySendJson("{}", "produkt", &message), zel::eNotFound);
  EXPECT_THAT(message, testing::HasSubstr("no endpoint has the consumer \"produkt\""));
  EXPECT_THROW(reporter.SendJson("{}", "produkt"), ReporterError);
  EXPECT_EQ(reporter.Stats().refused, 5u);
  EXPECT_EQ(reporter.Stats().submitted, 0u);
  EXPECT_EQ(reporter.TrySetSettings({}), zel::sOk);
  EXPECT_EQ(reporter.TrySendJson("{}"), zel::eNotFound);
}

// The listener, the log and the statistics say the same.
TEST_F(Sending, FailedRequestsSayWhatIsWrong) {
  const tests::ScriptedServer refuses(
      {"HTTP/1.1 400 No\r\nContent-Length: 204\r\n\r\nno\n" + std::string(201, 'x')});
  const tests::ScriptedServer proxy({"HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n"});
  const struct {
    Endpoint endpoint;
    std::string proxy;
    std::uint16_t status;
    std::string text;
  } cases[] = {
      {{refuses.Url()}, "", 400, "with status 400: \"no\\x0a" + std::string(197, 'x') + "\"..."},
      {{"https://nowhere.test"}, proxy.Url(""), 0, "tunnel failed, response 403) (0x80000059 Media error)"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.text);
    std::mutex mutex;  // guards the two below
    std::vector<FinishedRequest> heard;
    std::string log;
    ReporterOptions options = Options({each.endpoint}, "store" + std::to_string(&each - cases));
    options.proxy = each.proxy;
    options.retryAfter = seconds(0);
    options.listener = [&](const FinishedRequest& request) {
      const std::lock_guard lock(mutex);
      heard.push_back(request);
    };
    options.traceLevel = 300;
    options.log = [&](std::uint32_t, std::string_view line) {
      const std::lock_guard lock(mutex);
      log.append(line);
    };
    Reporter reporter(options);
    reporter.SendJson(R"({"a":1})");
    EXPECT_TRUE(tests::Eventually([&] { return !reporter.Stats().endpoints[0].lastError.empty(); }));
    EXPECT_FALSE(reporter.Flush(milliseconds(1500)));
    EXPECT_THAT(reporter.Stats().endpoints[0].lastError, testing::EndsWith(each.text));
    reporter.Close(milliseconds(0));
    ASSERT_FALSE(heard.empty());
    EXPECT_LE(heard.size(), 20u) << "only requests that were sent";
    EXPECT_THAT(heard[0].text, testing::EndsWith(each.text));
    EXPECT_THAT(log, testing::HasSubstr("request to " + each.endpoint.url + " failed: " + heard[0].text));
    EXPECT_EQ(std::tuple(heard[0].status, heard[0].endpoint, heard[0].records, heard[0].bytes),
              std::tuple(each.status, each.endpoint.url, 1u, 7u));
  }
}

TEST_F(Sending, OpeningMistakesAreSentencesAndLeaveNoFile) {
#ifndef _WIN32  // only a privileged user can make a link there
  std::filesystem::create_symlink(Path("elsewhere"), Path("trace"));
#endif
  std::ofstream(Path("a file")) << "a";
  Reporter holder(Options({{"http://127.0.0.1:1"}}, "held"));
  using Change = std::function<void(ReporterOptions&)>;
  const std::pair<Change, const char*> mistakes[] = {
      {[](auto& it) { it.store.clear(); }, "no store is given; set ReporterOptions::store to a folder"},
      {[&](auto& it) { it.store = Path("a file"); }, "a file is a file, but a store is a folder"},
      {[&](auto& it) { it.store = Path("held"); }, "in use by"},
#ifndef _WIN32
      {[&](auto& it) { it.traceFile = Path("trace"); }, "it is a symbolic link"},
#endif
      {[](auto& it) { it.store = "/proc/no such place/store"; }, "choose another one"},
      {[](auto& it) { it.traceFile = "/nonexistent/trace"; }, "trace file /nonexistent/trace"},
      {[](auto& it) { it.retryAfter = seconds(-1); }, "it must be 0 to 4294967"},
      {[](auto& it) { it.queueLimitKb = 4194304; }, "it must be 1 to 4194303"},
      {[](auto& it) { it.modulePath = VELD_C_LIBRARY; }, "exports no function zelGetObjectFactory"},
      {[](auto& it) { it.signingKeyFile = "none.pem"; }, "key file none.pem"},
      {[](auto& it) { it.caFile = "none.pem"; }, "caFile none.pem"},
      {[](auto& it) {
         it.headers = {"X-A: b", "X-Key"};
       },
       "header 2 isn't a line of the form"},
      {[](auto& it) { it.headers = {"X-A: b\r\nHost: c"}; }, "header 1 isn't a line of the form"},
      {[](auto& it) { it.headers = {"content-TYPE: text/plain"}; }, "content-TYPE is set by the client"},
  };
  const std::pair<Endpoint, const char*> endpoints[] = {
      {{"127.0.0.1/v1"}, "endpoint 1 (127.0.0.1/v1): the url must begin with http:// or https://"},
      {{"http://\xff"}, "not valid UTF-8 at byte 7"},
      {{"http://127.reports.test/v1"}, "use https, or allow http"},
      {{"https://h:99999/"}, "the url isn't valid: its port isn't"},
      {{"https://h", "veld_report.trigger"}, "this consumer name is reserved"},
      {{"https://h", "", {"no certificate"}}, "endpoint 1"},
      {{"http://127.0.0.1", "", {"sha256//"}}, "without TLS nothing checks them; use https"},
      {{"https://h", "", {}, "br"}, "compress is \"br\"; it must be none, gzip or zstd"},
  };
  const auto expectRefused = [&](const Change& change, const char* sentence) {
    ReporterOptions options = Options({{"http://127.0.0.1:1"}});
    change(options);
    std::string error;
    EXPECT_EQ(Reporter::TryOpen(options, &error), nullptr) << sentence;
    EXPECT_THAT(error, testing::HasSubstr(sentence));
    EXPECT_THROW(Reporter{options}, ReporterError);
    EXPECT_FALSE(std::filesystem::exists(Path("store"))) << sentence;
  };
  for (const auto& [change, sentence] : mistakes) expectRefused(change, sentence);
  for (const auto& [endpoint, sentence] : endpoints) {
    expectRefused([&](auto& it) { it.endpoints = {endpoint}; }, sentence);
    EXPECT_THROW(holder.SetSettings({.endpoints = {endpoint}}), ReporterError);
  }
  EXPECT_FALSE(std::filesystem::exists(Path("elsewhere")));
  EXPECT_EQ(holder.TrySendJson("{}"), zel::sOk) << "to the endpoint that it has";
}

// Consent: once sending is forbidden nothing leaves any more, whatever else is going on.
TEST_F(Sending, NoRequestStartsOnceSendingIsForbidden) {
  constexpr int records = 600;
  std::atomic<int> left{records - 200};  // of what it answers before sending is forbidden
  tests::ScriptedServer server([&](const tests::ScriptedRequest& request) {
    return --left < 0 ? NeverAnswers(request) : tests::ScriptedReply::Status(200);
  });
  ReporterOptions options = Options({{server.Url()}});
  options.packetLimit = 1;
  Reporter reporter(options);
  for (int i = 0; i < records; ++i) reporter.SendJson(R"({"n":1})");
  ASSERT_TRUE(server.WaitForRequests(10));
  reporter.AllowSending(false);
  // The one that was under way may have reached the server whole.
  const std::size_t sent = server.Requests().size() + 1;
  EXPECT_FALSE(reporter.Flush(milliseconds(500)));
  EXPECT_LE(server.Requests().size(), sent);
  left = 2 * records;
  reporter.AllowSending(true);
  EXPECT_TRUE(reporter.Flush(seconds(200)));
  EXPECT_THAT(server.Requests().size(), testing::AllOf(testing::Ge(records), testing::Le(records + 1)));
}

// Each way in which a Forget ends, begun while a request waits for a server that never answers. A withdrawal
// comes from the listener, which hears of the request that the Forget cuts, so in its middle.
TEST_F(Sending, ForgetSendsNothingAndLeavesTheLastWordStanding) {
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
    EXPECT_EQ(reporter.Flush(each.withdrawn ? milliseconds(300) : milliseconds(100000)), !each.withdrawn);
    EXPECT_EQ(server.Requests().size(), each.withdrawn ? 1u : 2u);
  }
}

}  // namespace
}  // namespace veld_report
