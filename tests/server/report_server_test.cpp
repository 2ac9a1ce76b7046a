#include "server/report_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "server/rate_limit.h"
#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"
#include "tests/common/waiting.h"
#include "tests/server/compress.h"
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

class ReportServerTest : public testing::Test {
 protected:
  std::string Path() const { return folder_ / "out.ndjson"; }
  std::string Stored() const { return tests::ReadFile(Path()); }
  ReportServerOptions Options() const {
    ReportServerOptions options;
    options.sinks = {{Path()}};
    return options;
  }

  const tests::TemporaryFolder folder_;
};

TEST_F(ReportServerTest, WhatIsNot200StoresNothing) {
  ReportServerOptions options = Options();
  options.bodyLimitBytes = 1000;
  options.verifier = [](std::string_view payload, std::string_view) {
    return std::string(payload.find("bad") == std::string_view::npos ? "" : "a bad one");
  };
  const std::string large(1001, ' ');
  const std::string chunked =
      "POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Type: application/json\r\n"
      "Transfer-Encoding: chunked\r\n\r\n";
  const struct {
    std::string request;
    int status;
    const char* sentence;
  } cases[] = {
      {"GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n", 405, "Allow: POST"},
      {"PUT / HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: 2\r\n\r\n{}", 405, "only POST"},
      {Post(exampleBody, "text/plain"), 400, "the Content-Type is \"text/plain\""},
      {Post(""), 400, "the body is empty"},
      {Post("{}"), 400, "the body has no member \"payload\""},
      {Post(Body(R"({"array":[{"bad":1}]})")), 400, "a bad one"},
      {Post(large), 413, "over the limit of 1000 bytes"},
      {chunked + "3e9\r\n" + large + "\r\n0\r\n\r\n", 413, "over the limit"},
  };
  std::string fitting(exampleBody);
  fitting.resize(1000, ' ');
  for (const unsigned status : {503U, 200U}) {
    options.status = status;
    ReportServer server(options);
    for (const auto& each : cases) {
      const RawAnswer answer = Exchange(server.Port(), each.request);
      EXPECT_EQ(answer.status, each.status) << each.request.substr(0, 200);
      EXPECT_THAT(answer.text, HasSubstr(each.sentence));
    }
    EXPECT_EQ(server.RefusedRequests(), std::size(cases));
    EXPECT_EQ(Stored(), "");
    // A body of exactly the limit passes, also in chunks.
    EXPECT_EQ(Exchange(server.Port(), Post(fitting)).status, status);
    std::string pieces;
    for (const char byte : fitting) pieces += std::string("1\r\n") + byte + "\r\n";
    for (const std::string& chunks : {"3e8\r\n" + fitting + "\r\n", pieces})
      EXPECT_EQ(Exchange(server.Port(), chunked + chunks + "0\r\n\r\n").status, status);
    EXPECT_EQ(server.StoredItems(), status == 200 ? 6U : 0U);
  }
}

// None of these asks for the closing: the server itself ends a connection whose frame is in doubt.
TEST_F(ReportServerTest, DoubtfulFramesAreRefusedAndEndTheConnection) {
  ReportServer server(Options());
  const std::string length = "Content-Length: " + std::to_string(exampleBody.size()) + "\r\n",
                    chunked = "Transfer-Encoding: chunked\r\n";
  const struct {
    std::string headers;
    const char* sentence;
  } cases[] = {
      {"Host: x\r\n" + length + chunked, "both a Content-Length and a Transfer-Encoding"},
      {"Host: x\r\n" + length + length, "more than one Content-Length"},
      {"Host: x\r\nContent-Length: +5\r\n", ""},
      {"Host: x\r\nContent-Length : 5\r\n" + length, "a header of the name \"Content-Length \""},
      {"Host: x\r\n" + length + "Transfer-Encoding\t: chunked\r\n",
       "a header of the name \"Transfer-Encoding"},
      {"Host: x\r\n" + length + "X: a\rY: b\r\n", "a control character"},
      {length, "no Host"},
      {"Host: x\r\nHost: x\r\n" + length, "more than one Host"},
      {"Host: x\r\n" + chunked + chunked, "only chunked"},
      {"Host: x\r\nTransfer-Encoding: gzip, chunked\r\n", "the Transfer-Encoding is \"gzip, chunked\""},
      {"Host: x\r\nTransfer-Encoding: xchunked\r\n", "only chunked is accepted"},
      {"Host: x\r\n" + length + std::string("X: a\0b\r\n", 8), "a zero byte"},
      {std::string("X:\0b\r\nHost: x\r\n", 16) + length, "a zero byte"},
      {std::string("Host: x\0\r\n", 10) + length, "a zero byte"},
      {"Host: x\r\n" + length + std::string("X: \0\r\n", 6), "a zero byte"},
      {"Host: x\r\nX: a\r\n b\r\n" + length, "a folded line"},
      {"Host: x\r\nX: a\n" + length, "doesn't end with CR and LF"},
      {"Host: x\r\n" + length + "X: \x1b[1m\r\n", "the header X has a control character"},
      {"Host: x\r\n" + length + "X\x7f: a\r\n", "a header of the name \"X\\x7f\""},
  };
  const struct {
    std::string line;
    const char* sentence;
  } lines[] = {
      {"POST /a%00b", "has a control character"},    {"POST /?a=%0a", "has a control character"},
      {"POST /a\tb", "has a control character"},     {"POST /a b", "or a blank"},
      {std::string("POST /a\0b", 9), "a zero byte"}, {std::string("POST /?a\0b", 10), "a zero byte"},
      {std::string("PO\0ST /", 8), "a zero byte"},
  };
  for (const auto& each : lines) {
    const RawAnswer answer =
        Exchange(server.Port(), each.line + " HTTP/1.1\r\nHost: x\r\n" + length + "\r\n");
    EXPECT_EQ(answer.status, 400) << each.line;
    EXPECT_THAT(answer.text, HasSubstr(each.sentence));
    EXPECT_THAT(answer.text, HasSubstr("Connection: close"));
  }
  for (const auto& each : cases) {
    const RawAnswer answer = Exchange(server.Port(), "POST / HTTP/1.1\r\nContent-Type: application/json\r\n" +
                                                         each.headers + "\r\n" + std::string(exampleBody));
    EXPECT_EQ(answer.status, 400) << each.headers;
    EXPECT_THAT(answer.text, HasSubstr(each.sentence));
    EXPECT_THAT(answer.text, HasSubstr("Connection: close"));
  }
  EXPECT_TRUE(
      tests::Eventually([&] { return server.RefusedRequests() == std::size(cases) + std::size(lines); }));
  EXPECT_EQ(Stored(), "");
  // A head that is only long.
  std::string large = Post(exampleBody), headers;
  for (int i = 0; i < 150; ++i) headers += "X-" + std::to_string(i) + ": " + std::string(50, 'x') + "\r\n";
  large.insert(large.find("Host"), headers);
  EXPECT_EQ(Exchange(server.Port(), large).status, 200);
}

TEST_F(ReportServerTest, AClientOverItsRateIsAnswered429) {
  ReportServerOptions options = Options();
  options.rate = 0.001;
  options.rateBurst = 2;
  ReportServer server(options);
  for (const int status : {200, 200, 429}) {
    const RawAnswer answer = Exchange(server.Port(), Post(exampleBody));
    EXPECT_EQ(answer.status, status);
    EXPECT_EQ(answer.text.find("Retry-After: 1000") != std::string::npos, status == 429) << answer.text;
  }
  const int other = server_test::Connect(server.Port(), "127.0.0.2");
  server_test::SendAll(other, Post(exampleBody));
  EXPECT_EQ(server_test::Receive(other).status, 200);
  close(other);
  using std::chrono::milliseconds;
  RateLimit limit(2, 1);
  const RateLimit::Clock::time_point start{};
  for (const auto& [ms, wait] : {std::pair{0, 0}, {1, 1}, {499, 1}, {501, 0}, {502, 1}})
    EXPECT_EQ(limit.Take("a", start + milliseconds(ms)).count(), wait) << ms;
}

// What has begun when the server stops is answered and stored; the same connection gets no further.
TEST_F(ReportServerTest, StopAnswersWhatHasBegun) {
  ReportServer server(Options());
  std::string request = Post(exampleBody);
  request.replace(request.find("Connection: close\r\n"), 19, "");
  const int begun = server_test::Connect(server.Port());
  server_test::SendAll(begun, request + request.substr(0, request.size() - 1));
  ASSERT_TRUE(tests::Eventually([&] { return server.StoredItems() == 2 && server.Load().bodyBytes > 0; }));
  std::thread stopping([&] { server.Stop(); });
  EXPECT_TRUE(tests::Eventually([&] {
    const int refused = server_test::Connect(server.Port());
    if (refused >= 0) close(refused);
    return refused < 0;
  }));
  server_test::SendAll(begun, request.substr(request.size() - 1) + request);
  const RawAnswer answer = server_test::Receive(begun);
  EXPECT_THAT(answer.text.substr(9), HasSubstr("HTTP/1.1 200"));
  EXPECT_THAT(answer.text, HasSubstr("Connection: close"));
  EXPECT_EQ(server.StoredItems(), 4U);
  stopping.join();
  close(begun);
  EXPECT_EQ(tests::Lines(Stored()).size(), 4U);
}

// A bomb ends at the limit, and nothing of a text that isn't whole is stored or kept.
TEST_F(ReportServerTest, CompressedBodiesAreTakenWholeOrNotAtAll) {
  ReportServerOptions options = Options();
  options.bodyLimitBytes = 200'000;  // more than what is decoded at first
  options.capturePath = folder_ / "captured";
  std::string atLimit(exampleBody), wrong(R"({"a":1})");
  atLimit.resize(options.bodyLimitBytes, ' ');
  const std::string over = atLimit + " ", bomb(20'000'000, ' ');
  ReportServer server(options);
  std::uint64_t stored = 0;
  const auto expect = [&](const std::string& coding, const std::string& body, int status,
                          const std::string& sentence) {
    const RawAnswer answer =
        Exchange(server.Port(), Post(body, "application/json\r\nContent-Encoding: " + coding));
    EXPECT_EQ(answer.status, status) << coding;
    EXPECT_THAT(answer.text, HasSubstr(sentence));
    stored += status == 200 ? 2 : 0;
    EXPECT_EQ(server.StoredItems(), stored) << coding << answer.text;
  };
  for (const auto& [coding, encode] :
       {std::pair{"gzip", &server_test::Gzip}, std::pair{"zstd", &server_test::Zstd}}) {
    const std::string good = encode(atLimit), small = encode(exampleBody), name = std::string(" ") + coding;
    for (const std::string& body :
         {good, small, encode("") + small, encode(atLimit.substr(0, 50)) + encode(atLimit.substr(50))})
      expect(coding, body, 200, "2 items stored");
    for (const std::string& body : {encode(over), encode(bomb), good + encode(" ")})
      expect(coding, body, 413, "over the limit of 200000 bytes once it is decoded");
    for (const std::size_t kept : {std::size_t{1}, std::size_t{10}, small.size() - 1})
      expect(coding, small.substr(0, kept), 400,
             "the body ends inside its" + name + " stream, at byte " + std::to_string(kept));
    std::string flipped = small;
    flipped[small.size() - 1] ^= 1;  // of the checksum or the length
    for (const std::string& body : {flipped, small + "garbage", std::string(exampleBody)})
      expect(coding, body, 400, "the body isn't valid" + name + " at byte ");
    expect(coding, "", 400, "the body is empty");
    expect(coding, encode(wrong), 400, "no member \"payload\"");
  }
  // Of each coding the empty one and the wrong one.
  EXPECT_EQ(tests::ReadFile(folder_ / "captured/refused-04.body"), wrong);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "captured/refused-05.body"));
  expect("Identity", std::string(exampleBody), 200, "stored");
  expect("X-GZip", server_test::Gzip(exampleBody), 200, "stored");
  expect("zstd", server_test::Gzip(exampleBody), 400, "isn't valid zstd");
  for (const char* coding : {"br", "gzip, zstd", "deflate"})
    expect(coding, server_test::Gzip(exampleBody), 415, "Accept-Encoding: gzip, zstd");
}

TEST_F(ReportServerTest, ConcurrentMessagesAreStoredWhole) {
  ReportServer server(Options());
  std::vector<std::string> expected;
  std::vector<std::thread> threads;
  for (int client = 0; client < 160; client += 20) {
    for (int i = client; i < client + 20; ++i) {
      expected.push_back("{\"id\":" + std::to_string(i) + ",\"part\":1}");
      expected.push_back("{\"id\":" + std::to_string(i) + ",\"part\":2}");
    }
    threads.emplace_back([&server, own = std::vector(expected.end() - 40, expected.end())] {
      for (std::size_t i = 0; i < own.size(); i += 2) {
        const std::string body = Body("{\"array\":[" + own[i] + "," + own[i + 1] + "]}");
        EXPECT_EQ(Exchange(server.Port(), Post(body)).status, 200);
      }
    });
  }
  for (std::thread& each : threads) each.join();
  EXPECT_THAT(tests::Lines(Stored()), testing::UnorderedElementsAreArray(expected));
}

// One server after the other, on the same port and file.
TEST_F(ReportServerTest, TornLastLineIsMovedAsideAtTheStart) {
  ReportServerOptions options = Options();
  const std::string line = "{\"a\":1}\n", large = "{\"" + std::string(200000, 'x');
  const struct {
    std::string before, after;
    std::string torn{};  // "refused": the server doesn't start
  } cases[] = {
      {"", ""},
      {line, line},
      {"{\"torn\":", "", "{\"torn\":"},
      {line + large, line, large},
      {line + std::string("{\"x\0\0", 5), line, std::string("{\"x\0\0", 5)},
      {line + std::string(3, '\0'), line, std::string(3, '\0')},
      {line + "{\"whole\":\"}\\\"\"}", line + "{\"whole\":\"}\\\"\"}\n"},
      {"\xff\xd8\xff\xe0 a picture", "", "refused"},
      {"a text\nof others", "", "refused"},
      {"others\n", "", "refused"},
      {line + "others", "", "refused"},
      {line + "{} {", "", "refused"},
  };
  for (const auto& each : cases) {
    tests::WriteFile(Path(), each.before);
    std::string log;
    options.log = [&log](const std::string& text) { log += text; };
    const bool fails = each.torn == "refused";
    if (fails) {
      EXPECT_THROW(ReportServer{options}, std::runtime_error) << each.before;
      EXPECT_EQ(Stored(), each.before);
      continue;
    }
    ReportServer server(options);
    options.port = server.Port();
    EXPECT_THROW(ReportServer{options}, std::runtime_error);  // the address is in use
    const std::string sentence = "moved an incomplete last line of " + std::to_string(each.torn.size());
    EXPECT_THAT(log, HasSubstr(each.torn.empty() ? "" : Path() + ": " + sentence));
    if (!each.torn.empty()) {
      const std::string moved = log.substr(log.rfind(' ') + 1);
      EXPECT_EQ(tests::ReadFile(moved), each.torn);
      std::filesystem::remove(moved);
    }
    EXPECT_EQ(Exchange(server.Port(), Post(exampleBody)).status, 200);
    EXPECT_EQ(Stored(), each.after + "{\"a\":1}\n{\"b\":2}\n");
    server.Stop();
    EXPECT_EQ(Exchange(options.port, Post(exampleBody)).status, 0);
  }
}

// Of both sinks. The log hears once of the failure, and once of its end.
TEST_F(ReportServerTest, FailedWriteIsAnswered503AndLeavesWholeLines) {
  for (const bool isDatabase : {false, true}) {
    ReportServerOptions options = Options();
    if (isDatabase) options.sinks = {{folder_ / "out.sqlite"}};
    std::vector<std::string> log;
    options.threads = 1;
    options.log = [&log](const std::string& line) { log.push_back(line); };
    ReportServer server(options);
    ASSERT_EQ(Exchange(server.Port(), Post(exampleBody)).status, 200);
    const std::string before = Stored();
    // A file size limit fails the write half-way, as a full disk does.
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = old;
    limit.rlim_cur = isDatabase ? 1 : before.size() + 3;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    const RawAnswer refused = Exchange(server.Port(), Post(exampleBody));
    const RawAnswer again = Exchange(server.Port(), Post(exampleBody));
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(again.status, 503);
    EXPECT_THAT(refused.text, HasSubstr("Retry-After: 1"));
    EXPECT_THAT(refused.text, HasSubstr(options.sinks[0].out));
    EXPECT_EQ(Stored(), before);
    EXPECT_EQ(Exchange(server.Port(), Post(exampleBody)).status, 200);
    EXPECT_EQ(server.StoredItems(), 4U);
    EXPECT_EQ(Stored(), isDatabase ? before : before + before);
    EXPECT_EQ(log.size(), 2U);
  }
}

}  // namespace
}  // namespace veld_report::server
