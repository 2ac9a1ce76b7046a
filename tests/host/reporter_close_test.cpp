// Closing in time, whatever servers, resolvers and other threads do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "tests/host/fake_resolver.h"
#include "tests/host/reporter_test_tools.h"

namespace veld_report {
namespace {

class Closing : public ReporterTest {};

// The deadline, the 5 seconds of one wait, and something for a slow machine.
constexpr milliseconds deadline{300};
constexpr milliseconds longest = deadline + seconds(5) + seconds(2);

TEST_F(Closing, KeepsToItsDeadlineAndLosesNothing) {
  tests::ScriptedServer silent(NeverAnswers);
  tests::ScriptedServer slow(Trickles);
  tests::HangingResolver resolver;
  const std::string urls[] = {silent.Url(), slow.Url(), "http://unknown.test/", "http://hangs.test/",
                              "http://127.0.0.1:" + std::to_string(tests::ClosedPort())};
  for (const std::string& url : urls) {
    SCOPED_TRACE(url);
    const std::string store = "store" + std::to_string(&url - urls);
    {
      ReporterOptions first = Options({{url}}, store);
      first.allowHttp = true;
      auto reporter = std::make_unique<Reporter>(first);
      reporter->SendJson("1");
      EXPECT_FALSE(reporter->Flush(milliseconds(100)));
      reporter->SendJson("2");
      EXPECT_LT(TimeOf([&] { EXPECT_FALSE(reporter->Close(deadline)); }), longest);
      EXPECT_EQ(reporter->TrySendJson("3"), zel::eNotInitialized);
      EXPECT_FALSE(reporter->Flush(seconds(60)));
      EXPECT_THROW(reporter->Stats(), ReporterError);
    }
    ReporterOptions options = Options({{url}}, store);
    options.allowHttp = true;
    options.sendingAllowed = false;
    Reporter again(options);
    EXPECT_EQ(again.Stats().total.waiting.items, 2);
  }
}

TEST_F(Closing, DestructorKeepsToItsDeadline) {
  tests::ScriptedServer silent(NeverAnswers);
  ReporterOptions options = Options({{silent.Url()}});
  options.closeDeadline = deadline;
  auto reporter = std::make_unique<Reporter>(options);
  reporter->SendJson("1");
  ASSERT_TRUE(silent.WaitForRequests(1));  // in the middle of a wait
  EXPECT_LT(TimeOf([&] { reporter.reset(); }), longest);
}

TEST_F(Closing, ProducersThatGoOnCallingNeitherCrashNorHoldItUp) {
  const auto server = Serve("out");
  ReporterOptions options = Options({{server->Url()}});
  Reporter reporter(options);
  std::atomic<int> accepted{0}, ended{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&] {
      while (reporter.TrySendJson("{}") == zel::sOk) ++accepted;
      ++ended;
    });
  }
  std::thread flusher([&] { reporter.Flush(seconds(60)); });
  while (accepted < 200) std::this_thread::yield();
  bool flushed = false;
  EXPECT_LT(TimeOf([&] { flushed = reporter.Close(seconds(30)); }), seconds(37));
  for (std::thread& producer : producers) producer.join();
  flusher.join();
  EXPECT_EQ(ended, 4);
  EXPECT_TRUE(flushed);
  EXPECT_EQ(server->StoredItems(), static_cast<std::uint64_t>(accepted));
}

TEST_F(Closing, WaitsForNoUrlThatIsHeldBackBeyondTheDeadline) {
  tests::ScriptedServer busy(tests::ScriptedReply::Status(503, "Retry-After: 600\r\n"));
  Reporter reporter(Options({{busy.Url()}}));
  reporter.SendJson("1");
  ASSERT_TRUE(busy.WaitForRequests(1));
  EXPECT_LT(TimeOf([&] { EXPECT_FALSE(reporter.Close(seconds(60))); }), seconds(20));
}

TEST_F(Closing, SecondCloserShortensTheFirstAndGetsItsAnswer) {
  tests::ScriptedServer silent(NeverAnswers);
  Reporter reporter(Options({{silent.Url()}}));
  reporter.SendJson("1");
  std::thread patient([&] { EXPECT_FALSE(reporter.Close(seconds(60))); });
  ASSERT_TRUE(silent.WaitForRequests(1));
  EXPECT_LT(TimeOf([&] { EXPECT_FALSE(reporter.Close(deadline)); }), longest);
  patient.join();
}

// A reporter that is a static object of the program, ended by its destructor behind main.
TEST_F(Closing, StaticReporterDeliversAtExitAndEndsInTime) {
  const auto server = Serve("out");
  EXPECT_EQ(tests::RunProgram({VELD_STATIC_PROGRAM, VELD_MODULE_PATH, Path("a"), server->Url()}).exitCode, 0);
  EXPECT_THAT(Stored("out"), testing::ElementsAre(R"({"from":"main"})", R"({"from":"a static destructor"})"));
  tests::ScriptedServer silent(NeverAnswers);
  const milliseconds time = TimeOf([&] {
    EXPECT_EQ(tests::RunProgram({VELD_STATIC_PROGRAM, VELD_MODULE_PATH, Path("b"), silent.Url()}).exitCode,
              0);
  });
  EXPECT_LT(time, seconds(3) + seconds(5) + seconds(2));
}

}  // namespace
}  // namespace veld_report
