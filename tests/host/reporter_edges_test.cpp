// Where the reporter meets what isn't its own: crash handlers, trace files, callers with older headers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>

#include "host/base/service_thread.h"
#include "tests/host/reporter_test_tools.h"
#include "veld_report/veld_report.h"

namespace veld_report {
namespace {

class Edges : public ReporterTest {};

TEST_F(Edges, FaultOnAServiceThreadReachesTheHandler) {
  constexpr int handled = 42;
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    const auto crash = [&] {
      signal(fault, [](int) { _exit(handled); });
      host::StartServiceThread("veld-test", [&] { pthread_kill(pthread_self(), fault); }).join();
    };
    EXPECT_EXIT(crash(), testing::ExitedWithCode(handled), "") << strsignal(fault);
  }
}

TEST_F(Edges, DeletedFolderIsNoSafePlace) {
  ReporterOptions options = Options({{"http://127.0.0.1:1"}});
  options.sendingAllowed = false;
  Reporter reporter(options);
  reporter.SendJson(R"({"n":1})");
  EXPECT_TRUE(reporter.FlushToStore(seconds(20)));
  std::filesystem::remove_all(Path("store"));
  reporter.SendJson(R"({"n":2})");
  EXPECT_FALSE(reporter.FlushToStore(milliseconds(500)));
}

TEST_F(Edges, CallerWithAnEarlierHeaderIsServed) {
  const std::string store = Path("store");
  veld_report_endpoint endpoint{};
  endpoint.url = "http://127.0.0.1:1";
  veld_report_options options{};
  options.store = store.c_str();
  options.endpoints = &endpoint;
  options.endpoint_count = 1;
  options.module_path = VELD_MODULE_PATH;
  const struct {
    std::size_t optionsSize, statisticsSize;
    bool isServed;
  } cases[] = {
      {sizeof options, sizeof(veld_report_statistics), true},
      {offsetof(veld_report_options, packet_limit_kb), sizeof(veld_report_statistics), true},
      {offsetof(veld_report_options, signing_key_file), offsetof(veld_report_statistics, waiting), true},
      {offsetof(veld_report_options, packet_limit), offsetof(veld_report_statistics, submitted), true},
      {offsetof(veld_report_options, endpoint_count), 0, false},
      {sizeof options + 8, sizeof(veld_report_statistics) + 8, false},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.optionsSize);
    options.struct_size = each.optionsSize;
    veld_report_handle* reporter = nullptr;
    char error[200] = "";
    EXPECT_EQ(veld_report_open(&options, &reporter, error, sizeof error) == zel::sOk, each.isServed) << error;
    veld_report_statistics statistics{};
    statistics.struct_size = each.statisticsSize;
    statistics.waiting_bytes = -1;
    if (!reporter) {
      options.struct_size = sizeof options;
      ASSERT_EQ(veld_report_open(&options, &reporter, error, sizeof error), zel::sOk) << error;
    }
    EXPECT_EQ(veld_report_stats(reporter, &statistics) == zel::sOk, each.isServed);
    // Nothing is written beyond the caller's struct.
    const bool isWhole = each.isServed && each.statisticsSize == sizeof statistics;
    EXPECT_EQ(statistics.waiting_bytes, isWhole ? 0 : -1);
    veld_report_free(reporter);
  }
  // An option beyond the caller's struct isn't looked at.
  endpoint.url = "http://reports.test/v1";
  options.allow_http = 1;
  for (const bool isWhole : {false, true}) {
    options.struct_size = isWhole ? sizeof options : offsetof(veld_report_options, allow_http);
    veld_report_handle* reporter = nullptr;
    char error[200] = "";
    EXPECT_EQ(veld_report_open(&options, &reporter, error, sizeof error),
              isWhole ? zel::sOk : zel::eInvalidArgument);
    EXPECT_THAT(error, testing::HasSubstr(isWhole ? "" : "allow http"));
    veld_report_free(reporter);
  }
}

}  // namespace
}  // namespace veld_report
