// SetSettings: the working table, the certificates, the timer, and that a failure changes nothing.

#include <functional>
#include <new>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

using SettingsTest = SenderTest;

TEST_F(SettingsTest, TheNameOfAQueueIsTheDigestOfTheUrlInHexadecimal) {
  // The units of the url as they lie in memory, whatever they are; no terminator.
  const std::u16string url = u"HTTP://\u00e4.example/\xd800?";
  host.hash->chosen[url] = {0x00, 0x01, 0x0a, 0x10, 0x7f, 0x80, 0x9f, 0xa0,
                            0xff, 0xfe, 0xc3, 0x28, 0x20, 0x0d, 0x5c, 0x22};
  host.queues->Put("00010a107f809fa0fffec328200d5c22", "old");
  Start({.urls = {url}});
  Cycle();
  EXPECT_EQ(host.http->TakeSent().at(0).url, url) << "used unchanged";
}

TEST_F(SettingsTest, RowsAreSortedByQueueAndKeepTheirConsumer) {
  struct Row {
    const char* what;
    Plan plan;
    Strings pushes;
  };
  // clang-format off
  const Row rows[] = {
      {"one consumer a row", {.urls = {urlC, urlA, urlB}, .consumers = {"c", "a", "b"}},
       {"Push 0a 1", "Push 0b 1", "Push 0c 1", "Push 0a 2", "Push 0c 3"}},
      {"one url twice is two rows on one queue", {.urls = {urlA, urlA}, .consumers = {"c", "a"}},
       {"Push 0a 1", "Push 0a 1", "Push 0a 2", "Push 0a 3"}},
      {"without consumers every row has none", {.urls = {urlB, urlA}}, {"Push 0a 1", "Push 0b 1"}},
      {"no row", {.urls = {}}, {}},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start(row.plan);
    Send("1");
    Send("2", "a");
    Send("3", "c");
    Send("4", "A");
    Fire();
    EXPECT_THAT(Events({"Push"}), ElementsAreArray(row.pushes));
    const auto& certificates = host.http->certificates;
    ASSERT_EQ(certificates.size(), row.plan.urls.size());
    for (std::size_t i = 0; i < certificates.size(); ++i) {
      const char* first = certificateBytes + i;
      EXPECT_EQ(certificates[i], fakes::FakeHttpClient::Row(first, first + 1)) << "in the order of the urls";
    }
    EndRow();
  }
}

TEST_F(SettingsTest, AFailureChangesNothing) {
  const std::string entry = Line(
      "VeldReportSenderImpl::SetSettings called... New settings: 2 urls; packetLimit = 3; queueLimit = 4Kb; "
      "sendTimeout = 30");
  const std::string certificates = "300 veld_rep\tCann't update certificates for urls";
  const Plan good = {.urls = {urlB, urlC}, .packetLimit = 3, .queueLimit = 4, .sendTimeout = 30};
  Plan oneConsumer = good;
  oneConsumer.consumers = {"x"};
  struct Row {
    const char* what;
    std::function<void()> script;
    Plan plan;
    ResultCode result;
    Strings lines;
  };
  // clang-format off
  const std::vector<Row> rows = {
      {"fewer consumers than urls", [] {}, oneConsumer, zel::eInvalidArgument, {entry}},
      {"no certificates interface", [&] { script().Fail("Query HttpClient", someCode); }, good,
       zel::eUnspecifiedError, {entry, certificates}},
      {"certificates refused", [&] { script().Fail("SetCertificates", someCode); }, good,
       zel::eUnspecifiedError, {entry, certificates}},
      {"no calculator for the second url", [&] { script().Fail("CreateCalculator", someCode, 2); }, good,
       someCode, {entry}},
      {"no interface of the calculator", [&] { script().Fail("Query HashCalculator", someCode); }, good,
       someCode, {entry}},
  };
  // clang-format on
  Start({}, true);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.script();
    EXPECT_EQ(Set(row.plan), row.result);
    EXPECT_THAT(Lines(), ElementsAreArray(row.lines));
    EXPECT_THAT(Events({"ArmTimer"}), IsEmpty());
    script().Clear();
  }
  EXPECT_EQ(Set({.urls = {}, .consumers = {"x"}}), zel::eInvalidArgument);
  script().Do("CreateCalculator", []() -> ResultCode { throw std::bad_alloc(); });
  EXPECT_THROW(Set(good), std::bad_alloc);
  host.http->usual = HttpAnswer::Status(500);
  Send("{}");
  Fire();
  EXPECT_THAT(Events({"CreateProducer", "MakeRequest", "ArmTimer", "Enumerate"}),
              ElementsAre("ArmTimer 1000", "CreateProducer 0a 10240", "EnumerateQueues",
                          "MakeRequestAsync http://a", "ArmTimer 7000"))
      << "no upkeep, and the old table";
}

TEST_F(SettingsTest, TheTimeoutIsSecondsInAndMillisecondsOut) {
  struct Row {
    std::uint32_t seconds;
    std::uint64_t milliseconds;
  };
  host.http->usual = HttpAnswer::Status(500);
  Start({}, true);
  for (const Row& row : {Row{30, 30000}, Row{0, 0}, Row{4294968, 704}}) {
    EXPECT_EQ(Set({.sendTimeout = row.seconds}), zel::sOk);
    Send("{}");
    Fire();
    EXPECT_EQ(host.timer->DelayMs(), row.milliseconds);
    Fire();
    EXPECT_EQ(host.timer->DelayMs(), row.milliseconds) << "the items still wait";
  }
}

TEST_F(SettingsTest, TheTimerIsAskedForOnceTheFlagTellsTheTruth) {
  Start();
  EXPECT_EQ(Set({}), zel::sOk);
  EXPECT_THAT(Events(), ElementsAre("SetCertificates 1")) << "the flag is left over from Construct";
  TriggerCycle();
  EXPECT_EQ(Set({}), zel::sOk);
  EXPECT_THAT(Events(), ElementsAre("ArmTimer 1000", "SetCertificates 1"));
  Fire();
  Events();
  EXPECT_EQ(Set({}), zel::sOk);
  EXPECT_EQ(Set({}), zel::sOk);
  EXPECT_THAT(Events(), ElementsAre("SetCertificates 1", "ArmTimer 1000", "SetCertificates 1"));
}

TEST_F(SettingsTest, ACycleKeepsTheSettingsThatItBeganWith) {
  Start({.packetLimit = 1}, true);
  PutItems('a', {"1", "2"});
  script().Do("Wait", [&] { return Set({.urls = {urlB}, .packetLimit = 9, .sendTimeout = 30}); });
  host.http->usual = HttpAnswer::Status(500);
  Cycle();
  EXPECT_THAT(Events({"MakeRequest", "ArmTimer"}),
              ElementsAre("MakeRequestAsync http://a", "ArmTimer 1000", "MakeRequestAsync http://a"));
  Send("3");
  Fire();
  EXPECT_THAT(Events({"RemoveQueue", "MakeRequest", "ArmTimer"}),
              ElementsAre("ArmTimer 1000", "RemoveQueue 0a", "MakeRequestAsync http://b", "ArmTimer 30000"));
  // The last flush goes by the settings in force, not by those of the last cycle.
  EXPECT_EQ(Set({.urls = {urlC}}), zel::sOk);
  Send("4");
  Events();
  End();
  EXPECT_THAT(Events({"RemoveQueue", "Push"}), ElementsAre("Push 0c 4"));
}

// What SetSettings leaves for the next cycle is assigned, not merged.
TEST_F(SettingsTest, TheLastSettingsDecideWhatTheNextCycleUpdates) {
  struct Row {
    const char* what;
    std::vector<std::uint32_t> queueLimits;
    Strings producers;
  };
  // clang-format off
  const Row rows[] = {
      {"the same limit", {10}, {}},
      {"another limit", {20}, {"CreateProducer 0a 20480"}},
      {"another limit and then the same again", {30, 30}, {}},
      {"there and back", {40, 30}, {"CreateProducer 0a 30720"}},
      {"a limit that wraps in bytes", {4194305}, {"CreateProducer 0a 1024"}},
  };
  // clang-format on
  Start();
  Send("{}");
  Fire();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    for (const std::uint32_t limit : row.queueLimits) EXPECT_EQ(Set({.queueLimit = limit}), zel::sOk);
    Events();
    Fire();
    EXPECT_THAT(Events({"CreateProducer"}), ElementsAreArray(row.producers));
  }
}

}  // namespace
}  // namespace veld_report::tests
