// Closing in time, whatever servers, resolvers and other threads do.
#include <gmock/gmock.h>

#include <atomic>
#include <functional>

#include "tests/common/waiting.h"
#include "tests/host/fake_resolver.h"
#include "tests/host/faulty_vfs.h"
#include "tests/host/reporter_test_tools.h"

namespace veld_report {
namespace {

class Closing : public ReporterTest {};

// The 5 seconds beyond the deadline, and something for a slow machine; yet shorter than anything that a close
// could wrongly wait for, which is the 30 seconds after which a silent request ends.
constexpr milliseconds deadline{300};
constexpr milliseconds longest = deadline + seconds(25);

TEST_F(Closing, KeepsToItsDeadlineAndLosesNothing) {
  tests::ScriptedServer silent(NeverAnswers);
  // A header, and then for ever a byte of the content now and then.
  tests::ScriptedServer slow(tests::ScriptedReply{"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n",
                                                  tests::ScriptedReply::endless, milliseconds(20)});
  const std::string urls[] = {silent.Url(), slow.Url(),
#ifndef _WIN32  // its resolver can't be replaced
                              "http://unknown.test/", "http://hangs.test/",
#endif
                              "http://127.0.0.1:" + std::to_string(tests::ClosedPort())};
#ifndef _WIN32
  tests::HangingResolver resolver;
#endif
  for (const std::string& url : urls) {
    SCOPED_TRACE(url);
    ReporterOptions options = Options({{url}}, "store" + std::to_string(&url - urls));
    options.allowHttp = true;
    {
      Reporter reporter(options);
      reporter.SendJson(R"({"n":1})");
      EXPECT_FALSE(reporter.Flush(milliseconds(100)));
      reporter.SendJson(R"({"n":2})");
      EXPECT_LT(TimeOf([&] { EXPECT_FALSE(reporter.Close(deadline)); }), longest);
      EXPECT_EQ(reporter.TrySendJson(R"({"n":3})"), zel::eNotInitialized);
      EXPECT_FALSE(reporter.Flush(seconds(60)));
    }
    options.sendingAllowed = false;
    std::unique_ptr<Reporter> next;  // a slow disk may hold up the end of the first one
    ASSERT_TRUE(tests::Eventually([&] { return (next = Reporter::TryOpen(options)) != nullptr; }));
    EXPECT_EQ(next->Stats().total.waiting.items, 2);
  }
}

// Stops the threads that come by while it is shut.
struct Barrier {
  void Pass() {
    if (shut) ++stopped;
    shut.wait(true);
  }
  void Open() {
    shut = false;
    shut.notify_all();
  }

  std::atomic<bool> shut = false;
  std::atomic<int> stopped = 0;
};

TEST_F(Closing, WaitsForNoDiskAndNoListenerThatHangs) {
  Barrier disk, application;
  tests::FaultyVfs::SetDefault(true);
  tests::FaultyVfs::observer = [&](tests::FaultyVfs::Event event, auto&&...) {
    if (event == tests::FaultyVfs::Event::sync) disk.Pass();
  };
  const auto server = Serve("out");
  ReporterOptions stored = Options({{server->Url()}}, "stored"), heard = Options({{server->Url()}}, "heard");
  stored.syncEveryCommit = true;
  stored.sendingAllowed = false;
  stored.closeDeadline = std::chrono::minutes(10);  // of a second close, which there must not be
  application.shut = true;
  heard.listener = [&](const FinishedRequest&) { application.Pass(); };
  auto first = std::make_unique<Reporter>(stored), second = std::make_unique<Reporter>(heard);
  second->SendJson(R"({"n":1})");
  EXPECT_TRUE(tests::Eventually([&] { return application.stopped == 1; }));
  second->SendJson(R"({"n":2})");
  EXPECT_TRUE(second->FlushToStore(seconds(100)));
  first->SendJson(R"({"n":1})");
  first->SendJson(R"({"n":2})");
  disk.shut = true;
  EXPECT_TRUE(tests::Eventually([&] { return disk.stopped > 0; }));
  Statistics figures;
  EXPECT_LT(TimeOf([&] { figures = first->Stats(); }), longest);
  EXPECT_EQ(figures.submitted, 2u);
  EXPECT_TRUE(figures.total.IsBalanced());

  std::thread other([&] { EXPECT_LT(TimeOf([&] { EXPECT_FALSE(second->Close(deadline)); }), longest); });
  EXPECT_LT(TimeOf([&] { EXPECT_FALSE(first->Close(deadline)); }), longest);
  other.join();
  for (auto* reporter : {&first, &second}) {
    EXPECT_FALSE((*reporter)->IsClosed());
    std::string why;
    EXPECT_EQ(Reporter::TryOpen(reporter == &first ? stored : heard, &why), nullptr);
    EXPECT_THAT(why, testing::HasSubstr("still being closed"));
  }
  EXPECT_LT(TimeOf([&] { first.reset(); }), longest) << "not once more";

  disk.Open();
  application.Open();
  EXPECT_TRUE(tests::Eventually([&] { return second->IsClosed(); }));
  EXPECT_EQ(application.stopped, 1) << "no call begins after the close";
  EXPECT_TRUE(tests::Eventually([&] { return (first = Reporter::TryOpen(stored)) != nullptr; }));
  EXPECT_EQ(first->Stats().total.waiting.items, 2);
  first.reset();
  tests::FaultyVfs::observer = {};
  tests::FaultyVfs::SetDefault(false);
}

TEST_F(Closing, AFloodHoldsUpNoFlushAndNoClose) {
  const auto server = Serve("out");
  ReporterOptions options = Options({{server->Url()}});
  options.memoryLimitRecords = 500;  // the producers are faster than any disk
  options.queueLimitKb = 1 << 20;    // nor does a slow delivery cost a record
  Reporter reporter(options);
  std::atomic<std::uint64_t> accepted{0};
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&] {
      zel::ResultCode code = zel::eOutOfSpace;
      for (; code == zel::sOk || code == zel::eOutOfSpace; code = reporter.TrySendJson("{}"))
        accepted += code == zel::sOk;
      EXPECT_EQ(code, zel::eNotInitialized);
    });
  }
  while (accepted < 1000) std::this_thread::yield();
  const std::uint64_t before = accepted;
  EXPECT_TRUE(reporter.Flush(seconds(100)));
  EXPECT_GE(server->StoredItems(), before);
  std::thread flusher([&] { reporter.Flush(seconds(200)); });
  EXPECT_TRUE(reporter.Close(seconds(100)));
  for (std::thread& producer : producers) producer.join();
  flusher.join();
  EXPECT_EQ(server->StoredItems(), accepted);
}

TEST_F(Closing, WaitsForNoUrlThatIsHeldBackBeyondTheDeadline) {
  tests::ScriptedServer busy(tests::ScriptedReply::Status(503, "Retry-After: 3000\r\n"));
  Reporter reporter(Options({{busy.Url()}}));
  reporter.SendJson(R"({"n":1})");
  ASSERT_TRUE(busy.WaitForRequests(1));
  EXPECT_LT(TimeOf([&] { EXPECT_FALSE(reporter.Close(seconds(600))); }), seconds(60));
}

TEST_F(Closing, IsCutShortByASecondCloseOrWithoutConsent) {
  const std::function<void(Reporter&)> cuts[] = {[](auto& it) { EXPECT_FALSE(it.Close(deadline)); },
                                                 [](auto& it) { it.AllowSending(false); }};
  for (const auto& cut : cuts) {
    tests::ScriptedServer silent(NeverAnswers);
    Reporter reporter(Options({{silent.Url()}}));
    reporter.SendJson(R"({"n":1})");
    std::thread patient([&] { EXPECT_FALSE(reporter.Close(seconds(60))); });
    ASSERT_TRUE(silent.WaitForRequests(1));
    EXPECT_LT(TimeOf([&] {
                cut(reporter);
                patient.join();
              }),
              longest);
    EXPECT_EQ(silent.Requests().size(), 1u);
  }
}

// A reporter that is a static object of the program, ended by its destructor behind main.
TEST_F(Closing, StaticReporterDeliversAtExitAndEndsInTime) {
  const auto server = Serve("out");
  const auto run = [&](const std::string& store, const std::string& url, const char* deadlineMs) {
    return tests::RunProgram({VELD_STATIC_PROGRAM, VELD_MODULE_PATH, Path(store), url, deadlineMs}).exitCode;
  };
  EXPECT_EQ(run("a", server->Url(), "50000"), 0);
  EXPECT_THAT(Stored("out"), testing::ElementsAre(R"({"from":"main"})", R"({"from":"a static destructor"})"));
  tests::ScriptedServer silent(NeverAnswers);
  EXPECT_LT(TimeOf([&] { EXPECT_EQ(run("b", silent.Url(), "300"), 0); }), longest);
}

}  // namespace
}  // namespace veld_report
