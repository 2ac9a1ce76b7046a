// Sending, flushing, statistics, settings and listeners of the reporter, against real servers on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "host/queue/queue_service.h"
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

TEST_F(Sending, FlushIsTrueOnceEveryFormOfRecordIsOnTheServer) {
  const auto server = Serve("out");
  Reporter reporter(Options({{server->Url(), "product"}}));
  reporter.Send(application::Started{"4.2.0", 312});
  reporter.Send(RecordBuilder().Add("built", true), "product");
  reporter.SendJson(R"({"text": 1})");
  EXPECT_EQ(reporter.TrySend(application::Started{}), zel::sOk);
  EXPECT_TRUE(reporter.Flush(seconds(20)));
  // Looked at while the reporter lives on: the flush itself has brought them there.
  EXPECT_THAT(Stored("out"),
              testing::ElementsAre(R"({"version":"4.2.0","startupMs":312})", R"({"built":true})",
                                   R"({"text": 1})", R"({"version":"","startupMs":0})"));
  EXPECT_TRUE(reporter.Close(seconds(5)));
}

TEST_F(Sending, FlushIsFalseWhileAnythingIsUndelivered) {
  const std::uint16_t port = tests::ClosedPort();
  Reporter reporter(Options({{"http://127.0.0.1:" + std::to_string(port)}}));
  reporter.SendJson("1");
  EXPECT_FALSE(reporter.Flush(milliseconds(300)));
  EXPECT_EQ(reporter.Stats().total.waiting.items, 1);
  // The server comes up while a flush waits: it tries again by itself, long before the retry of 30 seconds.
  std::unique_ptr<server::ReportServer> server;
  std::thread starter([&] { server = Serve("out", port); });
  const milliseconds time = TimeOf([&] { EXPECT_TRUE(reporter.Flush(seconds(25))); });
  starter.join();
  EXPECT_LT(time, seconds(25));
  EXPECT_THAT(Stored("out"), testing::ElementsAre("1"));
}

// The cycle that moves the records goes on to wait for an answer, 5 seconds long.
TEST_F(Sending, FlushToStoreWaitsForTheFileAndForNoAnswer) {
  tests::ScriptedServer silent(NeverAnswers);
  Reporter reporter(Options({{silent.Url()}}));
  reporter.SendJson("1");
  EXPECT_TRUE(reporter.FlushToStore(seconds(4)));
  // A look at the file from beside sees what a next run would find if this process were killed.
  const auto beside = host::QueueService::Open({.folder = Path("store"), .inspectOnly = true});
  EXPECT_EQ(beside->TotalWaiting().items, 1);
  ASSERT_TRUE(silent.WaitForRequests(1));
  reporter.SendJson("2");
  EXPECT_TRUE(reporter.FlushToStore(seconds(20)));
  EXPECT_EQ(beside->TotalWaiting().items, 2);
  reporter.Close(seconds(0));
  EXPECT_FALSE(reporter.FlushToStore(seconds(20)));
}

// One endpoint works and one doesn't: the flush must not be content with the half of it.
TEST_F(Sending, FlushLooksAtEveryQueue) {
  const auto server = Serve("out");
  Reporter reporter(Options({{server->Url()}, {"http://127.0.0.1:" + std::to_string(tests::ClosedPort())}}));
  reporter.SendJson("1");
  EXPECT_FALSE(reporter.Flush(seconds(1)));
  EXPECT_TRUE(tests::Eventually([&] { return !Stored("out").empty(); }));
  EXPECT_FALSE(reporter.Flush(milliseconds(100)));
}

TEST_F(Sending, FlushEndsWhileAProducerFloodsAndMemoryStaysBounded) {
  std::atomic<bool> stop{false};
  const auto server = Serve("out");
  ReporterOptions options = Options({{server->Url()}});
  options.memoryLimitRecords = 500;  // the producer is faster than any disk
  Reporter reporter(options);
  std::atomic<std::uint64_t> refusals{0};
  std::thread producer([&] {
    while (!stop) {
      if (reporter.TrySendJson(R"({"later":1})") == zel::eOutOfSpace) ++refusals;
    }
  });
  while (refusals == 0) std::this_thread::yield();
  EXPECT_LE(reporter.Stats().inMemory, 500u);
  while (reporter.TrySendJson(R"({"first":1})") != zel::sOk) std::this_thread::yield();
  EXPECT_TRUE(reporter.Flush(seconds(20)));
  stop = true;
  producer.join();
  EXPECT_THAT(Stored("out"), testing::Contains(R"({"first":1})"));
}

TEST_F(Sending, RecordsThatARuleDropsAreFlushedAndCounted) {
  const std::string url = "http://127.0.0.1:" + std::to_string(tests::ClosedPort());
  ReporterOptions options = Options({{url}});
  options.queueLimitKb = 1;
  Reporter reporter(options);
  reporter.SendJson("\"" + std::string(600, 'a') + "\"");
  reporter.SendJson("\"" + std::string(600, 'b') + "\"");   // makes the first one go
  reporter.SendJson("\"" + std::string(2000, 'c') + "\"");  // never fits, and makes the second one go
  EXPECT_TRUE(reporter.Flush(seconds(10)));
  const QueueLedger ledger = reporter.Stats().endpoints.at(0).ledger;
  EXPECT_TRUE(ledger.IsBalanced());
  EXPECT_EQ(ledger.accepted.items, 3);
  EXPECT_EQ(ledger.evicted.items, 2);
  EXPECT_EQ(ledger.rejected.items, 1);
  EXPECT_EQ(ledger.waiting.items, 0);
}

TEST_F(Sending, RefusedRecordsSayWhyAndAreCounted) {
  Reporter reporter(Options({{"http://127.0.0.1:1", "product"}}));
  struct Case {
    std::string_view json, consumer;
    zel::ResultCode code;
    std::string_view message;
  };
  const Case cases[] = {
      {"{\"a\":}", "", zel::eInvalidArgument, "the text isn't one JSON value"},
      {"{}", "produkt", zel::eNotFound, "no endpoint has the consumer \"produkt\""},
  };
  for (const Case& each : cases) {
    std::string message;
    EXPECT_EQ(reporter.TrySendJson(each.json, each.consumer, &message), each.code);
    EXPECT_THAT(message, testing::HasSubstr(std::string(each.message)));
    EXPECT_THROW(reporter.SendJson(each.json, each.consumer), ReporterError);
  }
  EXPECT_EQ(reporter.Stats().refused, 4u);
  EXPECT_EQ(reporter.Stats().submitted, 0u);
  EXPECT_EQ(reporter.TrySetSettings({}), zel::sOk);
  EXPECT_EQ(reporter.TrySendJson("{}"), zel::eNotFound);
}

TEST_F(Sending, SettingsAndListenerChangeAtRunTime) {
  const auto first = Serve("first");
  const auto second = Serve("second");
  std::mutex lock;
  std::vector<std::string> urls;
  Reporter reporter(Options({{first->Url()}}));
  reporter.SetListener([&](const FinishedRequest& request) {
    const std::lock_guard guard(lock);
    urls.push_back(request.url);
  });
  reporter.SendJson("1");
  EXPECT_TRUE(reporter.Flush(seconds(20)));
  EXPECT_THROW(reporter.SetSettings({.endpoints = {{"mailto:me"}}}), ReporterError);
  EXPECT_EQ(reporter.CurrentSettings().endpoints.at(0).url, first->Url());
  reporter.SetSettings({.endpoints = {{second->Url()}}});
  reporter.SendJson("2");
  EXPECT_TRUE(reporter.Flush(seconds(20)));
  EXPECT_THAT(Stored("first"), testing::ElementsAre("1"));
  EXPECT_THAT(Stored("second"), testing::ElementsAre("2"));
  reporter.Close(seconds(0));
  EXPECT_THAT(urls, testing::ElementsAre(first->Url(), second->Url()));
}

TEST_F(Sending, OpeningMistakesAreSentences) {
  const auto message = [&](ReporterOptions options) {
    std::string error = "opened";
    EXPECT_EQ(Reporter::TryOpen(std::move(options), &error), nullptr);
    return error;
  };
  ReporterOptions options = Options({});
  options.store.clear();
  EXPECT_EQ(message(options), "reporter: no store is given; set ReporterOptions::store to a folder");
  options = Options({});
  options.retryAfter = seconds(-1);
  EXPECT_THAT(message(options), testing::HasSubstr("it must be 0 to 4294967"));
  Reporter holder(Options({}));
  EXPECT_THAT(message(Options({})), testing::HasSubstr("store"));
  EXPECT_THROW(Reporter(Options({})), ReporterError);
}

}  // namespace
}  // namespace veld_report
