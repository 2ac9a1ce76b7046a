// Where the reporter meets what isn't its own: crash handlers, key files, full disks, programs in C and those
// with older headers.
#include <gmock/gmock.h>
#ifndef _WIN32
#include <signal.h>
#include <unistd.h>
#endif

#include <cstddef>
#include <filesystem>
#include <utility>

#include "host/platform/library.h"
#include "host/platform/service_thread.h"
#include "host/signature/key_files.h"
#include "server/message_check.h"
#include "tests/common/file_attributes.h"
#include "tests/common/small_disk.h"
#include "tests/common/waiting.h"
#include "tests/host/reporter_test_tools.h"
#include "veld_report/veld_report.h"

namespace veld_report {
namespace {

class Edges : public ReporterTest {};

#ifndef _WIN32  // there a fault is no signal of a thread
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
#endif

#ifndef _WIN32  // nobody can delete an open store there
TEST_F(Edges, DeletedFolderIsNoSafePlace) {
  ReporterOptions options = Options({{"http://127.0.0.1:1"}});
  options.sendingAllowed = false;
  Reporter reporter(options);
  reporter.SendJson(R"({"n":1})");
  EXPECT_TRUE(reporter.FlushToStore(seconds(100)));
  std::filesystem::remove_all(Path("store"));
  reporter.SendJson(R"({"n":2})");
  EXPECT_FALSE(reporter.FlushToStore(milliseconds(500)));
}
#endif

TEST_F(Edges, KeyIsReplacedWhileTheReporterRunsAndABadOneChangesNothing) {
  const auto first = host::GenerateEd25519KeyPair(Path("first"));
  const auto second = host::GenerateEd25519KeyPair(Path("second"));
  EXPECT_TRUE(tests::IsPrivate(first.privatePath));
  const tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  ReporterOptions options = Options({{server.Url()}});
  options.signingKeyFile = first.privatePath;
  Reporter reporter(options);
  const struct {
    std::optional<std::string> file;
    std::string refusal, signedWith;
  } steps[] = {
      {{}, "", first.keyId},
      {second.privatePath, "", second.keyId},
      {second.publicPath, "key file " + second.publicPath + ": not a private key", second.keyId},
      {{}, "", second.keyId},
      {"", "", R"({"alg":"none"})"},
      {Path("gone"), "key file " + Path("gone"), R"({"alg":"none"})"},
      {first.privatePath, "", first.keyId},
  };
  std::uint32_t packetLimit = 0;
  for (const auto& step : steps) {
    Settings settings = reporter.CurrentSettings();
    settings.signingKeyFile = step.file;
    settings.packetLimit = packetLimit + 1;
    std::string error;
    EXPECT_EQ(zel::Failed(reporter.TrySetSettings(settings, &error)), !step.refusal.empty());
    EXPECT_THAT(error, testing::StartsWith(step.refusal));
    if (step.refusal.empty()) ++packetLimit;
    EXPECT_EQ(reporter.CurrentSettings().packetLimit, packetLimit);
    reporter.SendJson("{}");
    ASSERT_TRUE(reporter.Flush(seconds(100)));
    const auto message = server::CheckMessage(server.Requests().back().body, {});
    EXPECT_THAT(message.signatureHeader, testing::HasSubstr(step.signedWith));
  }
}

TEST_F(Edges, CallerWithAnEarlierHeaderIsServed) {
  const std::string store = Path("store");
  veld_report_endpoint endpoint{};
  veld_report_options options{};
  options.store = store.c_str();
  options.endpoints = &endpoint;
  options.endpoint_count = 1;
  options.module_path = VELD_MODULE_PATH;
  options.allow_http = 1;
  veld_report_handle* reporter = nullptr;
  const auto expectOpened = [&](std::size_t size, const char* url, bool isOpened) {
    veld_report_free(std::exchange(reporter, nullptr));
    options.struct_size = size;
    endpoint.url = url;
    char error[200] = "";
    const zel::ResultCode code = veld_report_open(&options, &reporter, error, sizeof error);
    EXPECT_EQ(code, isOpened ? zel::sOk : zel::eInvalidArgument) << size << ": " << error;
  };
  const char* const local = "http://127.0.0.1:1";
  expectOpened(offsetof(veld_report_options, packet_limit), local, true);
  expectOpened(offsetof(veld_report_options, endpoint_count), local, false);
  expectOpened(sizeof options + 8, local, false);
  // An option beyond the caller's struct isn't looked at.
  expectOpened(offsetof(veld_report_options, allow_http), "http://reports.test/v1", false);
  expectOpened(sizeof options, "http://reports.test/v1", true);
  const std::pair<std::size_t, bool> sizes[] = {{0, false},
                                                {offsetof(veld_report_statistics, submitted), true},
                                                {offsetof(veld_report_statistics, waiting), true},
                                                {sizeof(veld_report_statistics), true},
                                                {sizeof(veld_report_statistics) + 8, false}};
  for (const auto& [size, isServed] : sizes) {
    veld_report_statistics statistics{};
    statistics.struct_size = size;
    statistics.waiting_bytes = -1;
    EXPECT_EQ(veld_report_stats(reporter, &statistics) == zel::sOk, isServed) << size;
    // Nothing is written beyond the caller's struct.
    EXPECT_EQ(statistics.waiting_bytes, size == sizeof statistics ? 0 : -1);
  }
  // In the first header an endpoint had two members.
  const char* const endpoints[] = {"https://127.0.0.1:1/a", nullptr, "https://127.0.0.1:1/b", "product"};
  options.endpoints = reinterpret_cast<const veld_report_endpoint*>(endpoints);
  options.endpoint_count = 2;
  expectOpened(offsetof(veld_report_options, proxy), "", true);
  std::string consumers;
  const auto collect = [](void* to, const veld_report_endpoint_statistics* each) {
    static_cast<std::string*>(to)->append(each->consumer).append(";");
  };
  EXPECT_EQ(veld_report_endpoint_stats(reporter, collect, &consumers), zel::sOk);
  EXPECT_EQ(consumers, ";product;");
  veld_report_free(reporter);
}

TEST_F(Edges, ProgramInCGoesThroughEveryFunction) {
  tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  const auto run = tests::RunProgram({VELD_C_PROGRAM, VELD_MODULE_PATH, Path("c"), server.Url()});
  EXPECT_EQ(run.exitCode, 0) << run.errors;
  ASSERT_EQ(server.Requests().size(), 2u);
  for (const tests::ScriptedRequest& request : server.Requests()) {
    EXPECT_THAT(request.head, testing::HasSubstr("\r\nX-Product: C\r\n"));
    EXPECT_THAT(request.head, testing::HasSubstr("\r\nUser-Agent: reporter_c_program\r\n"));
    // {"array":[{"from":"C","text":"gr\u00fc\u00df"}]}
    EXPECT_THAT(request.body,
                testing::HasSubstr("\"eyJhcnJheSI6W3siZnJvbSI6IkMiLCJ0ZXh0IjoiZ3JcdTAwZmNcdTAwZGYifV19\""));
  }
}

// An application may take a library out of its process while its reporter still works.
TEST_F(Edges, UnloadedLibraryStaysAsLongAsItsThreads) {
  const tests::ScriptedServer server(tests::ScriptedReply::Status(200));
  const std::string store = Path("store"), url = server.Url();
  veld_report_endpoint endpoint{};
  endpoint.url = url.c_str();
  veld_report_options options{};
  options.struct_size = sizeof options;
  options.store = store.c_str();
  options.endpoints = &endpoint;
  options.endpoint_count = 1;
  options.module_path = VELD_MODULE_PATH;
  for (const bool isClosedBefore : {false, true}) {
    std::string why;
    void* const library = host::OpenLibrary(VELD_C_LIBRARY, &why);
    ASSERT_NE(library, nullptr) << why;
    const auto find = [&]<class Function>(const char* name, Function*) {
      return reinterpret_cast<Function*>(host::FindFunction(library, name));
    };
    const auto send = find("veld_report_send_json", &veld_report_send_json);
    const auto close = find("veld_report_close", &veld_report_close);
    const auto free = find("veld_report_free", &veld_report_free);
    veld_report_handle* reporter = nullptr;
    ASSERT_EQ(find("veld_report_open", &veld_report_open)(&options, &reporter, nullptr, 0), zel::sOk);
    EXPECT_EQ(send(reporter, nullptr, "{}", 2, nullptr, 0), zel::sOk);
    if (!isClosedBefore) host::CloseLibrary(library);
    EXPECT_EQ(close(reporter, 100'000), 1);
    if (isClosedBefore) host::CloseLibrary(library);
    free(reporter);
  }
  EXPECT_EQ(server.Requests().size(), 2u);
}

// A disk that has no room when an application starts for the first time.
TEST_F(Edges, FirstStartFailsOrEveryRecordIsInTheLedger) {
  constexpr int records = 101;
  int opened = 0, refused = 0;
  for (const int free : {0, 8, 32, 64, 96, 128, 256, 512}) {
    SCOPED_TRACE(std::to_string(free) + " KB free");
    const std::string name = "disk" + std::to_string(free);
    const tests::SmallDisk disk(Path(name), "2m");
    if (!disk.IsMounted()) GTEST_SKIP() << "this user can't mount a small tmpfs";
    disk.FillButFor(static_cast<std::uintmax_t>(free) << 10);
    ReporterOptions options = Options({{"http://127.0.0.1:1"}}, name + "/store");
    options.sendingAllowed = false;
    std::string why;
    auto reporter = Reporter::TryOpen(options, &why);
    if (!reporter) {
      EXPECT_THAT(why, testing::HasSubstr("room"));
      ++refused;
      disk.MakeRoom();
      EXPECT_NE(Reporter::TryOpen(options, &why), nullptr) << why;
      continue;
    }
    ++opened;
    const std::string record = "{\"" + std::string(8000, 'r') + "\":1}";
    for (int i = 0; i < records; ++i) reporter->SendJson(record);
    static_cast<void>(reporter->FlushToStore(milliseconds(300)));
    EXPECT_TRUE(tests::Eventually([&] { return reporter->Stats().total.accepted.items == records; }));
    EXPECT_TRUE(reporter->Stats().total.IsBalanced());
    reporter.reset();  // without an exception
  }
  EXPECT_GT(opened, 0);
  EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace veld_report
