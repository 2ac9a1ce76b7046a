// Sending, flushing, statistics, settings and listeners of the reporter, against real servers on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

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

// One endpoint works and one doesn't: the flush must not be content with the half of it.
TEST_F(Sending, FlushIsFalseUntilEveryQueueIsDelivered) {
  const std::uint16_t port = tests::ClosedPort();
  const auto first = Serve("first");
  Reporter reporter(Options({{first->Url()}, {"http://127.0.0.1:" + std::to_string(port)}}));
  reporter.SendJson("1");
  EXPECT_FALSE(reporter.Flush(seconds(1)));
  EXPECT_TRUE(tests::Eventually([&] { return !Stored("first").empty(); }));
  EXPECT_FALSE(reporter.Flush(milliseconds(100)));
  EXPECT_EQ(reporter.Stats().total.waiting.items, 1);
  // The server comes up while a flush waits: it tries again by itself, long before the retry of 30 seconds.
  std::unique_ptr<server::ReportServer> second;
  std::thread starter([&] { second = Serve("second", port); });
  EXPECT_LT(TimeOf([&] { EXPECT_TRUE(reporter.Flush(seconds(25))); }), seconds(25));
  starter.join();
  EXPECT_THAT(Stored("second"), testing::ElementsAre("1"));
}

TEST_F(Sending, FlushEndsWhileAProducerFloods) {
  std::atomic<bool> stop{false};
  const auto server = Serve("out");
  ReporterOptions options = Options({{server->Url()}});
  options.memoryLimitRecords = 500;  // the producer is faster than any disk
  Reporter reporter(options);
  std::atomic<bool> refused{false};
  std::thread producer([&] {
    while (!stop) refused = refused || reporter.TrySendJson(R"({"later":1})") == zel::eOutOfSpace;
  });
  while (!refused) std::this_thread::yield();
  while (reporter.TrySendJson(R"({"first":1})") != zel::sOk) std::this_thread::yield();
  EXPECT_TRUE(reporter.Flush(seconds(20)));
  stop = true;
  producer.join();
  EXPECT_THAT(Stored("out"), testing::Contains(R"({"first":1})"));
}

TEST_F(Sending, RecordsThatARuleDropsAreFlushedAndCounted) {
  const auto server = Serve("out");
  ReporterOptions options = Options({{server->Url()}});
  options.queueLimitKb = 1;
  options.sendingAllowed = false;
  Reporter reporter(options);
  reporter.SendJson("\"" + std::string(600, 'a') + "\"");
  reporter.SendJson("\"" + std::string(600, 'b') + "\"");  // makes the first one go
  EXPECT_TRUE(reporter.FlushToStore(seconds(20)));
  reporter.AllowSending(true);
  EXPECT_TRUE(reporter.Flush(seconds(20)));
  EXPECT_EQ(reporter.Stats().total,
            (QueueLedger{.accepted = {2, 1204}, .delivered = {1, 602}, .evicted = {1, 602}}));
}

TEST_F(Sending, RefusedRecordsSayWhyAndAreCounted) {
  Reporter reporter(Options({{"http://127.0.0.1:1", "product"}}));
  std::string message;
  EXPECT_EQ(reporter.TrySendJson("{\"a\":}", "", &message), zel::eInvalidArgument);
  EXPECT_THAT(message, testing::HasSubstr("the text isn't one JSON value"));
  EXPECT_EQ(reporter.TrySendJson("{}", "produkt", &message), zel::eNotFound);
  EXPECT_THAT(message, testing::HasSubstr("no endpoint has the consumer \"produkt\""));
  EXPECT_THROW(reporter.SendJson("{}", "produkt"), ReporterError);
  EXPECT_EQ(reporter.Stats().refused, 3u);
  EXPECT_EQ(reporter.Stats().submitted, 0u);
  EXPECT_EQ(reporter.TrySetSettings({}), zel::sOk);
  EXPECT_EQ(reporter.TrySendJson("{}"), zel::eNotFound);
}

TEST_F(Sending, SettingsAndListenerChangeAtRunTime) {
  const auto first = Serve("first");
  const auto second = Serve("second");
  std::vector<std::string> urls;
  Reporter reporter(Options({{first->Url()}}));
  reporter.SetListener([&](const FinishedRequest& request) { urls.push_back(request.url); });
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
  ReporterOptions withoutStore = Options({}), negative = Options({}), link = Options({}, "linked");
  withoutStore.store.clear();
  negative.retryAfter = seconds(-1);
  std::filesystem::create_symlink(Path("elsewhere"), link.traceFile = Path("trace"));
  Reporter holder(Options({}));
  const std::pair<ReporterOptions, const char*> cases[] = {
      {withoutStore, "reporter: no store is given; set ReporterOptions::store to a folder"},
      {negative, "it must be 0 to 4294967"},
      {link, "it is a symbolic link"},
      {Options({}), "in use by"}};
  for (const auto& [options, sentence] : cases) {
    std::string error;
    EXPECT_EQ(Reporter::TryOpen(options, &error), nullptr);
    EXPECT_THAT(error, testing::HasSubstr(sentence));
    EXPECT_THROW(Reporter{options}, ReporterError);
  }
  EXPECT_FALSE(std::filesystem::exists(Path("elsewhere")));
}

}  // namespace
}  // namespace veld_report
