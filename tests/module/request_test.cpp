// What leaves the module: the body of a request byte for byte, and the texts that carry its url.

#include <functional>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

using RequestTest = SenderTest;

std::string Body(const std::string& payload, const std::string& signature) {
  return R"({"payload":")" + payload + R"(","signatures":[{"protected":")" + signature + R"("}]})";
}

TEST_F(RequestTest, TheBodyByteForByte) {
  const std::string unsignedBlock = "eyJhbGciOiJub25lIn0A";
  const std::string pair = "eyJhcnJheSI6W3siYSI6MX0seyJiIjoyfV19";
  struct Row {
    const char* what;
    std::function<void()> script;
    Strings items;
    std::string body;
    std::size_t length;
  };
  const Strings two = {"{\"a\":1}", "{\"b\":2}"};
  const std::string zero("a\0b", 3);
  // clang-format off
  const std::vector<Row> rows = {
      {"no provider", [&] { host.locator->LackNth(orvel::ISignatureProvider::iid, 1); }, two, Body(pair,
       unsignedBlock), 102},
      {"signed", [] {}, two, Body(pair, "+/8="), 86},
      {"signed with a positive code", [&] { script().Fail("Sign", 1); }, two, Body(pair, "+/8="), 86},
      {"the provider fails behind a block", [&] { script().Fail("Sign", someCode); }, two, Body(pair,
       unsignedBlock), 102},
      {"one item", [] {}, {two[0]}, Body("eyJhcnJheSI6W3siYSI6MX1dfQ==", "+/8="), 78},
      {"an empty item", [] {}, {""}, Body("eyJhcnJheSI6W119", "+/8="), 66},
      {"an item with a zero byte", [] {}, {zero}, Body("eyJhcnJheSI6W2EAYl19", "+/8="), 70},
      {"an item that is no JSON", [] {}, {">>>???"}, Body("eyJhcnJheSI6Wz4+Pj8/P119", "+/8="), 74},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.script();
    Start({}, true);
    PutItems('a', row.items);
    Cycle();
    const auto sent = host.http->TakeSent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].body, row.body);
    EXPECT_EQ(sent[0].body.size(), row.length);
    EXPECT_THAT(FailureLines(), IsEmpty());
    EndRow();
  }
  EXPECT_EQ(host.signature->payload, "{\"array\":[>>>???]}") << "the raw text is signed";
}

TEST_F(RequestTest, UrlsAreToldInUtf8) {
  Start({.urls = {u"http://\u00e4\u20ac\U0001f600\xd800"}});
  const std::string url = "http://\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80\xed\xa0\x80";
  Send("{}");
  Lines();
  Fire();
  const Strings lines = Lines();
  EXPECT_THAT(lines, testing::Contains(Line("MakeRequest for url " + url + " started. Payload size is 1")));
  EXPECT_THAT(lines, testing::Contains(Line("Request for url " + url + " finished with success")));
  EXPECT_THAT(Events({"OnRequestFinished"}), ElementsAre("OnRequestFinished VeldRep 0 " + url));
}

TEST_F(RequestTest, WithoutANotificationARequestEndsQuietly) {
  host.locator->Lack(orvel::IRequestsNotification::iid);
  Start();
  Send("{}");
  host.http->Answer(HttpAnswer::Status(500));
  Fire();
  Fire();
  EXPECT_THAT(Events({"Ack", "ReturnItem", "OnRequest"}), ElementsAre("ReturnItem 1", "Ack 1"));
}

}  // namespace
}  // namespace veld_report::tests
