#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "server/page/page_server.h"
#include "tests/common/temporary_folder.h"
#include "tests/common/waiting.h"
#include "tests/server/message_builder.h"
#include "tests/server/raw_client.h"

namespace veld_report::server {
namespace {

using server_test::Body;
using server_test::Exchange;
using server_test::Post;
using server_test::RawAnswer;
using testing::HasSubstr;

// A server with its page.
class PageTest : public testing::Test {
 protected:
  void Start(const std::string& token = {}, const std::string& address = "127.0.0.1") {
    page_.reset();
    server_.reset();
    ReportServerOptions options;
    options.sinks = {{folder_ / "out.ndjson"}};
    options.observer = &watch_;
    server_ = std::make_unique<ReportServer>(std::move(options));
    page_ = std::make_unique<PageServer>(PageServerOptions{address, 0, token}, *server_, watch_);
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
