#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "server/page/page_server.h"
#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"
#include "tests/common/waiting.h"
#include "tests/server/message_builder.h"
#include "tests/server/raw_client.h"

namespace veld_report::server {
namespace {

using server_test::Body;
using server_test::exampleBody;
using server_test::Exchange;
using server_test::Post;
using server_test::RawAnswer;
using testing::HasSubstr;

// A server with its page.
class PageTest : public testing::Test {
 protected:
  void Start(const std::string& token = {}, const std::string& address = "127.0.0.1",
             ReportServerOptions options = {}) {
    page_.reset();
    server_.reset();
    if (options.sinks.empty()) options.sinks = {{folder_ / "out.ndjson"}};
    options.observer = &watch_;
    server_ = std::make_unique<ReportServer>(std::move(options));
    page_ =
        std::make_unique<PageServer>(PageServerOptions{.address = address, .token = token}, *server_, watch_);
  }
  // `{port}` in the headers stands for the page's. Without a Host among them it gets the page's own.
  RawAnswer Get(const std::string& path, std::string headers = {}) const {
    return Ask("GET", path, std::move(headers), {});
  }
  RawAnswer Ask(const std::string& method, const std::string& path, std::string headers,
                const std::string& body) const {
    if (headers.find("Host:") == std::string::npos) headers += "Host: 127.0.0.1:{port}\r\n";
    const std::string port = "{port}";
    for (std::size_t at = 0; (at = headers.find(port)) != std::string::npos;)
      headers.replace(at, port.size(), std::to_string(page_->Port()));
    return Exchange(page_->Port(), method + " " + path + " HTTP/1.1\r\nConnection: close\r\n" + headers +
                                       "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  }

  const tests::TemporaryFolder folder_;
  PageWatch watch_;
  std::unique_ptr<ReportServer> server_;
  std::unique_ptr<PageServer> page_;
};

TEST_F(PageTest, OtherSitesDontReadIt) {
  Start();
  const struct {
    const char *path, *headers;
    int status;
  } cases[] = {
      {"/", "", 200},
      {"/state", "Host: LocalHost:{port}\r\n", 200},
      {"/state", "Host: [::1]:{port}\r\nOrigin: http://[::1]:{port}\r\n", 200},
      {"/state", "Host: 127.0.0.1\r\n", 421},
      {"/state", "Host: 127.0.0.1:1\r\n", 421},
      {"/", "Host: rebound.example:{port}\r\n", 421},
      {"/metrics", "Host: 127.0.0.1.example:{port}\r\n", 421},
      {"/state", "Origin: http://localhost:{port}\r\n", 403},
      {"/events", "Origin: null\r\n", 403},
      {"/state", "Sec-Fetch-Site: same-origin\r\n", 200},
      {"/state", "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: navigate\r\n", 403},
      {"/events", "Sec-Fetch-Site: same-site\r\n", 403},
      {"/", "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: navigate\r\n", 200},
      {"/healthz", "Host: any\r\nOrigin: http://any\r\n", 200},
      {"/readyz", "Host: any\r\n", 200},
      {"/records/1", "", 404},
      {"/records/18446744073709551616", "", 404},
      {"/refused/1x", "", 404},
      {"/../etc/passwd", "", 404},
      {"/token.html", "", 200},
      {"/events?filter=%22open", "", 400},
  };
  for (const auto& each : cases)
    EXPECT_EQ(Get(each.path, each.headers).status, each.status) << each.path << "\n" << each.headers;
  EXPECT_THAT(Ask("POST", "/state", "", "").text, HasSubstr("Allow: GET, HEAD"));
  EXPECT_EQ(Ask("POST", "/", "", std::string(5000, 'x')).status, 0);
  EXPECT_EQ(Get("/state", std::string("A: b\0c\r\n", 8)).status, 400);
  EXPECT_THAT(Get("/").text, HasSubstr("default-src 'none'; script-src 'self'"));
}

TEST_F(PageTest, WithATokenNothingIsReadWithoutIt) {
  const auto beyondLoopback = [this] { Start("", "0.0.0.0"); };
  EXPECT_THROW(beyondLoopback(), std::runtime_error);
  Start("correct horse", "0.0.0.0");
  for (const char* path : {"/", "/state", "/members", "/events", "/metrics", "/refused/1", "/page.js"}) {
    EXPECT_EQ(Get(path).status, 401) << path;
    EXPECT_EQ(Get(path, "Authorization: Bearer correct hors\r\n").status, 401) << path;
    EXPECT_EQ(Get(path, "Cookie: veldrep_page=\r\n").status, 401) << path;
  }
  EXPECT_EQ(Get("/metrics", "Host: any.example\r\nAuthorization: Bearer correct horse\r\n").status, 200);
  EXPECT_EQ(Get("/healthz").status, 200);
  EXPECT_EQ(Ask("POST", "/token", "", "token=wrong").status, 403);
  EXPECT_EQ(Ask("POST", "/token", "Origin: http://other\r\n", "token=correct+horse").status, 403);
  const RawAnswer entered = Ask("POST", "/token", "", "a=b&token=correct%20horse");
  EXPECT_EQ(entered.status, 303);
  const std::size_t begin = entered.text.find("Set-Cookie: ") + std::string("Set-Cookie: ").size();
  const std::string cookie = entered.text.substr(begin, entered.text.find(';', begin) - begin);
  EXPECT_EQ(Get("/state", "Cookie: a=b; " + cookie + "\r\n").status, 200);
  EXPECT_EQ(Get("/state", "Host: rebound.example:{port}\r\nCookie: " + cookie + "\r\n").status, 421);
}

TEST_F(PageTest, IsReadyWhileEverySinkStores) {
  ReportServerOptions options;
  options.sinks = {{folder_ / "sub/out.ndjson"}, {folder_ / "out.ndjson"}};
  std::filesystem::create_directory(folder_ / "sub");
  options.unreadyTime = std::chrono::hours(1);
  Start("", "127.0.0.1", options);
  const auto expect = [&](int ready, const char* sentence) {
    EXPECT_THAT(Get("/readyz").text, HasSubstr(sentence));
    EXPECT_EQ(Get("/readyz").status, ready);
    EXPECT_EQ(Get("/healthz").status, 200);
    const RawAnswer head = Ask("HEAD", "/readyz", "", "");
    EXPECT_EQ(head.status, ready);
    EXPECT_THAT(head.text, testing::EndsWith("\r\n\r\n"));
  };
  expect(200, "ok");
  std::filesystem::remove_all(folder_ / "sub");
  EXPECT_EQ(Exchange(server_->Port(), Post(exampleBody)).status, 503);
  expect(503, "couldn't be stored");
  // Somebody must try the sink again.
  std::filesystem::create_directory(folder_ / "sub");
  options.unreadyTime = std::chrono::milliseconds(100);
  Start("", "127.0.0.1", options);
  std::filesystem::remove_all(folder_ / "sub");
  EXPECT_EQ(Exchange(server_->Port(), Post(exampleBody)).status, 503);
  EXPECT_TRUE(tests::Eventually([&] { return Get("/readyz").status == 200; }));
  std::filesystem::create_directory(folder_ / "sub");
  EXPECT_EQ(Exchange(server_->Port(), Post(exampleBody)).status, 200);
  expect(200, "ok");
  server_->Stop();
  expect(503, "the server is stopping");
  EXPECT_THAT(Ask("DELETE", "/readyz", "", "").text, HasSubstr("Allow: GET, HEAD"));
}

// Whatever a client is refused or cut for, by the server or by the HTTP library, is counted once.
TEST_F(PageTest, EachReasonIsCounted) {
  ReportServerOptions options;
  options.bodyLimitBytes = 1000;
  options.bodyMemoryBytes = 1;  // raised, so there is memory for four bodies, and above three one is cut
  options.connectionLimit = 10;
  options.rate = 0.001;
  options.rateBurst = 30;
  options.idleTimeoutSeconds = 600;
  options.verifier = [](std::string_view payload, std::string_view) {
    return std::string(payload.find("bad") == std::string_view::npos ? "" : "a bad one");
  };
  std::vector<std::string> log;
  std::mutex logMutex;
  options.log = [&](const std::string& line) {
    const std::lock_guard lock(logMutex);
    log.push_back(line);
  };
  Start("", "127.0.0.1", options);
  // One that cuts what is silent, and one that speaks TLS.
  ReportServerOptions others = options;
  others.observer = &watch_;
  others.sinks = {{folder_ / "secure.ndjson"}};
  others.certificatePath = others.certificateKeyPath = VELD_TLS_FILES "/server.pem";
  ReportServer secure(others);
  options.requestTime = std::chrono::milliseconds(50);
  options.observer = &watch_;
  options.sinks = {{folder_ / "impatient.ndjson"}};
  ReportServer impatient(options);

  const std::string host = "Host: x\r\n", chunked = "POST / HTTP/1.1\r\n" + host +
                                                    "Content-Type: application/json\r\n"
                                                    "Transfer-Encoding: chunked\r\n\r\n";
  const std::string withoutEnd = "7d0\r\n" + std::string(2000, ' ') + "\r\n";
  const struct {
    std::string request, reason, status;
  } cases[] = {
      {"GET / HTTP/1.1\r\n" + host + "Connection: close\r\n\r\n", "method", "405"},
      {"POST / HTTP/1.1\r\n\r\n", "framing", "400"},
      {"POST / HTTP/1.1\r\nno colon\r\n\r\n", "framing", "400"},
      {"POST / HTTP/1.1\r\n" + host + "Content-Length: x\r\n\r\n", "framing", "400"},
      {"POST / HTTP/2.0\r\n" + host + "\r\n", "framing", "505"},
      {"POST /" + std::string(40'000, 'x'), "framing", "414"},
      {"POST / HTTP/1.1\r\nName: " + std::string(40'000, 'x'), "framing", "431"},
      {chunked + "zz\r\n", "framing", "400"},
      {Post(std::string(1001, ' ')), "size", "413"},
      {chunked + withoutEnd + withoutEnd + withoutEnd, "size", "none"},
      {Post(exampleBody, "text/plain"), "content", "400"},
      {Post(exampleBody, "application/json\r\nContent-Encoding: br"), "content", "415"},
      {Post("{}"), "message", "400"},
      {Post(Body(R"({"array":[{"bad":1}]})")), "signature", "400"},
      {Post(exampleBody), "", "200"},
  };
  std::map<std::string, int> reasons, statuses;
  for (const auto& each : cases) {
    const RawAnswer answer = Exchange(server_->Port(), each.request);
    EXPECT_EQ(answer.status == 0 ? "none" : std::to_string(answer.status), each.status)
        << each.request.substr(0, 100);
    ++statuses[each.status];
    if (!each.reason.empty()) ++reasons[each.reason];
  }

  std::vector<int> held;
  const auto hold = [&](std::uint16_t port, const std::string& text, const char* from) {
    held.push_back(server_test::Connect(port, from));
    server_test::SendAll(held.back(), text);
  };
  // Closed without an answer, which can be told from a client that goes as long as this one stays.
  hold(server_->Port(), "nonsense\r\n", "127.0.0.1");
  EXPECT_EQ(server_test::Receive(held.back()).text, "");
  ++reasons["framing"];
  ++statuses["none"];
  hold(server_->Port(), "", "127.0.0.2");
  std::string requests;
  for (int i = 0; i < 31; ++i) requests += "POST / HTTP/1.1\r\n" + host + "Content-Length: 0\r\n\r\n";
  server_test::SendAll(held.back(), requests);
  reasons["content"] += 30;
  statuses["400"] += 30;
  ++reasons["rate"];
  ++statuses["429"];
  for (int i = 0; i < 4; ++i) {
    hold(server_->Port(), Post(std::string(1000, ' ')).substr(0, 1000), "127.0.0.3");
    EXPECT_TRUE(tests::Eventually([&] { return server_->Load().bodyBytes >= 1000U * std::min(i + 1, 3); }));
  }
  EXPECT_TRUE(tests::Eventually([&] { return server_->CutConnections() == 1; }));
  std::map<std::string, int> cut{{"memory", 1}, {"connections", 4}, {"time", 1}, {"tls", 1}};
  EXPECT_TRUE(tests::Eventually([&] { return server_->Load().connections == 4; }));
  for (int i = 0; i < 10; ++i) hold(server_->Port(), "", "127.0.0.4");
  hold(impatient.Port(), "", "127.0.0.1");
  EXPECT_EQ(Exchange(secure.Port(), Post(exampleBody)).status, 0);

  // What the library refuses is counted once its connection has closed.
  const auto lines = [&](const std::string& family, const std::string& label,
                         const std::map<std::string, int>& counts) {
    std::string all;
    for (const auto& [name, count] : counts)
      all += family + "{" + label + "=\"" + name + "\"} " + std::to_string(count) + "\n";
    return all;
  };
  const auto nonzero = [&](const std::string& family) {
    std::string all;
    for (const std::string& line : tests::Lines(Get("/metrics").text))
      if (line.starts_with(family + "{") && !line.ends_with(" 0")) all += line + "\n";
    return all;
  };
  const auto agree = [&](const std::string& family, const std::string& label,
                         const std::map<std::string, int>& counts) {
    EXPECT_TRUE(tests::Eventually([&] {
      std::vector<std::string> wanted = tests::Lines(lines(family, label, counts)),
                               found = tests::Lines(nonzero(family));
      std::sort(found.begin(), found.end());
      return wanted == found;
    })) << nonzero(family)
        << "instead of\n"
        << lines(family, label, counts);
  };
  agree("veldrep_refused_requests_total", "reason", reasons);
  agree("veldrep_requests_total", "status", statuses);
  agree("veldrep_cut_connections_total", "reason", cut);
  const ServerTotals totals = watch_.Counters().Totals();
  EXPECT_EQ(server_->RefusedRequests(), totals.refused);
  EXPECT_EQ(server_->CutConnections() + secure.CutConnections() + impatient.CutConnections(), 7U);
  for (const int each : held) close(each);
  const std::lock_guard lock(logMutex);
  EXPECT_EQ(log.size(), totals.refused + 7);
  for (const std::string& line : log) EXPECT_THAT(line, testing::StartsWith("127.0.0."));
}

// A client that begins a handshake and then waits costs no time of the processor.
TEST_F(PageTest, HalfAHandshakeIsWaitedForQuietly) {
  ReportServerOptions options;
  options.requestTime = std::chrono::milliseconds(300);
  options.certificatePath = options.certificateKeyPath = VELD_TLS_FILES "/server.pem";
  Start("", "127.0.0.1", options);
  const int client = server_test::Connect(server_->Port());
  const std::clock_t before = std::clock();
  server_test::SendAll(client, std::string("\x16\x03\x01\x00\xc8\x01", 6));
  EXPECT_TRUE(server_test::Receive(client).hasEnded);
  EXPECT_LT(static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC, 0.1);
  close(client);
}

// Readers that never read get no memory, and don't keep the page from ending.
TEST_F(PageTest, SilentReadersHoldNothingUp) {
  Start();
  std::vector<int> readers;
  const auto open = [&] {
    readers.push_back(server_test::Connect(page_->Port()));
    server_test::SendAll(readers.back(), "GET /events HTTP/1.1\r\nHost: 127.0.0.1:" +
                                             std::to_string(page_->Port()) + "\r\n\r\n");
    std::string status(12, ' ');
    if (read(readers.back(), status.data(), status.size()) == 12 && status == "HTTP/1.1 200") return true;
    close(readers.back());
    readers.pop_back();
    return false;
  };
  for (std::size_t i = 0; i < StreamHub::maxStreams; ++i) EXPECT_TRUE(open());
  EXPECT_FALSE(open());
  const std::string large = "{\"array\":[{\"text\":\"" + std::string(500'000, 'x') + "\"}]}";
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Exchange(server_->Port(), Post(Body(large))).status, 200);
  EXPECT_TRUE(tests::Eventually([&] { return Get("/records/1").status == 200; }));
  close(readers.back());
  readers.pop_back();
  EXPECT_TRUE(tests::Eventually(open)) << "a reader that has gone makes room for another";
  page_.reset();
  for (const int each : readers) close(each);
}

TEST(RecordFilters, ChooseByTextAndByMember) {
  const std::string record =
      R"({"name":"Two Words","n":1e999,"ok":true,"no":null,"list":[1,2],"in":{"deep":"x:y"},"\u0061":"b"})";
  const struct {
    const char* filter;
    bool fits;
  } cases[] = {
      {"", true},
      {"two WORDS", true},
      {"\"two  words\"", false},
      {"/V1", true},
      {"http://x", false},
      {"name:\"Two Words\"", true},
      {"name:Two", false},
      {"name:Two*", true},
      {"name:two*", false},
      {"n:1e999", true},
      {"ok:true no:null", true},
      {"ok:true no:1", false},
      {"in.deep:x:y", true},
      {"deep:x:y", false},
      {"list:[1,2]", true},
      {"list:", true},
      {"in:", false},
      {"gone:", false},
      {"a:b", true},
      {"words ok:true", true},
  };
  MemberWalk walk;
  for (const auto& each : cases)
    EXPECT_EQ(RecordFilter(each.filter).Fits(record, "/v1", walk), each.fits) << each.filter;
  for (const std::string& wrong :
       {std::string(257, 'x'), std::string("a \"b"), std::string("1 2 3 4 5 6 7 8 9")})
    EXPECT_THROW(RecordFilter{wrong}, std::invalid_argument) << wrong;
}

TEST(MemberTables, CountTypesPresenceAndValues) {
  MemberTable table;
  for (const char* record : {R"({"a":1,"b":{"c":"x"},"a":2})", R"({"a":-2.5,"b":{"c":"y"}})", R"({"a":"1"})",
                             R"({"a":1e999,"b":{"c":"x"}})", R"([1])", R"({"a":tru)"})
    table.Add(record);
  ASSERT_EQ(table.Members().size(), 2U);
  const MemberFigures& a = table.Members()[0];
  EXPECT_EQ(a.path, "a");
  EXPECT_EQ(a.records, 4U);
  EXPECT_THAT(a.types, testing::ElementsAre(1, 3, 0, 0, 0, 0));
  EXPECT_EQ(a.minimum, -2.5);
  EXPECT_EQ(a.maximum, 1);
  EXPECT_THAT(MemberTable::Commonest(table.Members()[1], 1), testing::ElementsAre(testing::Pair("x", 2U)));
  EXPECT_EQ(table.Members()[1].path, "b.c");
  for (int i = 0; i < 300; ++i) table.Add("{\"m" + std::to_string(i) + "\":" + std::to_string(i) + "}");
  EXPECT_EQ(table.Members().size(), MemberTable::maxMembers);
  EXPECT_EQ(table.RecordsWithOthers(), 102U);
}

TEST(RateHistories, KeepTheirLengthWhateverTheClockDoes) {
  RateHistory history;
  const auto sums = [&] {
    std::vector<std::uint64_t> all;
    for (const RateHistory::Level& level : history.Levels()) {
      EXPECT_EQ(level.samples.size(), level.steps);
      all.push_back(0);
      for (const RateSample& each : level.samples) all.back() += each.records;
    }
    return all;
  };
  const std::int64_t begin = 1'000'000'200;
  history.Add(begin, {5, 1, 0});
  history.Add(begin - 50, {1, 1, 0});  // the clock was set back
  history.Add(begin + 299, {2, 1, 0});
  EXPECT_THAT(sums(), testing::ElementsAre(8, 8, 8));
  history.Add(begin + 300, {4, 1, 0});
  EXPECT_THAT(sums(), testing::ElementsAre(6, 12, 12));
  history.Add(begin + 90'000, {1, 1, 0});
  EXPECT_THAT(sums(), testing::ElementsAre(1, 1, 1));
}

// What comes faster than the page looks is sampled and counted; nothing grows beyond its limit.
TEST(PageMemory, IsLimited) {
  Intake intake;
  MessageContent content;
  for (content.itemCount = 0; content.itemCount < 150; ++content.itemCount)
    content.itemLines += "{\"a\":1}\n";
  const ObservedRequest request{"host", "/path", "peer", "body"};
  std::size_t left = 0;
  for (int i = 0; i < 1000; ++i) left += intake.Offer(request, {content, "", {150, 0}, {}});
  const std::vector<TakenMessage> taken = intake.Take();
  EXPECT_EQ(left, 150'000 - Intake::maxRecords);
  EXPECT_EQ(taken.size(), 6U + 400U);  // six with a hundred records, then one of each
  content.itemLines.assign(Intake::maxBytes, 'x') += '\n';
  content.itemCount = 1;
  EXPECT_EQ(intake.Offer(request, {content, "", {1, 0}, {}}), 1U);

  RecordWindow window;
  const std::string large = std::string(RecordWindow::maxRecordBytes - 1, 'x') + "é";
  for (int i = 0; i < 100; ++i) window.Add(taken[0].packet, 0, large);
  EXPECT_LE(window.Bytes(), RecordWindow::maxBytes);
  EXPECT_EQ(window.Records().back().text.size(), RecordWindow::maxRecordBytes - 1);
  for (std::size_t i = 0; i < RecordWindow::maxRecords + 5; ++i) window.Add(taken[0].packet, 0, "{}");
  EXPECT_EQ(window.Records().size(), RecordWindow::maxRecords);
  EXPECT_FALSE(window.Find(105));
  EXPECT_EQ(window.Find(106), &window.Records().front());
  EXPECT_FALSE(window.Find(106 + RecordWindow::maxRecords));

  RefusedList refused;
  const std::string body(RefusedList::maxBodyBytes, 'x');
  for (int i = 0; i < 30; ++i)
    refused.Add({"host", "/", "peer", body}, {400, RefusalReason::message, "no message"});
  const std::vector<RefusedRequest> latest = refused.Latest();
  EXPECT_EQ(
      std::count_if(latest.begin(), latest.end(), [](const auto& each) { return each.body != nullptr; }), 16);
  EXPECT_TRUE(refused.Body(30) && !refused.Body(1));

  EventStream stream{RecordFilter("")};
  for (int i = 0; i < 5; ++i) stream.Push("records", std::string(EventStream::maxWaitingBytes / 4, 'x'));
  EXPECT_EQ(stream.Missed(), 2U);
}

}  // namespace
}  // namespace veld_report::server
