#include "server/message_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "server/base64.h"
#include "server/json_reader.h"
#include "tests/server/message_builder.h"

namespace veld_report::server {
namespace {

using server_test::Body;
using server_test::EncodeBase64;
using testing::HasSubstr;

struct ItemsCase {
  const char* payload;
  const char* lines;
  std::size_t count;
};

TEST(MessageCheck, WorkedExamplePasses) {
  const MessageContent content = CheckMessage(server_test::exampleBody, nullptr);
  EXPECT_EQ(content.problem, "");
  EXPECT_EQ(content.payloadText, R"({"array":[{"a":1},{"b":2}]})");
  EXPECT_EQ(content.itemLines, "{\"a\":1}\n{\"b\":2}\n");
  EXPECT_EQ(content.signatureHeader, R"({"alg":"none"})");
  EXPECT_EQ(content.signature, "");
  EXPECT_FALSE(content.signatureChecked);
}

TEST(MessageCheck, ItemsKeepTheirExactText) {
  const ItemsCase cases[] = {
      {R"({"array":[]})", "", 0},
      {R"({"array":[1.50e+3,"é\u00e9\/",null]})", "1.50e+3\n\"é\\u00e9\\/\"\nnull\n", 3},
      {R"({"array":[{ "b" : [ 1 , 2 ] }]})", "{ \"b\" : [ 1 , 2 ] }\n", 1},
      {R"({"array":[123456789012345678901234567890,1e999]})", "123456789012345678901234567890\n1e999\n", 2},
      {R"({"array":["\ud800"]})", "\"\\ud800\"\n", 1},
      {"{\"array\":[{\n \"a\" :\t\"x y\" }]}", "{\"a\":\"x y\"}\n", 1},
      {R"( { "array" : [ {} , {} ] } )", "{}\n{}\n", 2},
  };
  for (const ItemsCase& each : cases) {
    const MessageContent content = CheckMessage(Body(each.payload), nullptr);
    EXPECT_EQ(content.problem, "") << each.payload;
    EXPECT_EQ(content.itemLines, each.lines) << each.payload;
    EXPECT_EQ(content.itemCount, each.count) << each.payload;
  }
}

TEST(MessageCheck, WhatTheFormatLeavesOpenPasses) {
  for (const char* body : {
           R"( {"signatures" : [ {"protected":""} ], "payload" : "eyJhcnJheSI6W119"} )",
           R"({"payload":"eyJhcnJheSI6W119","signatures":[{"protected":"+\/8="}]})",
           "{\"payload\":\"eyJhcnJheSI6W119\",\n\"signatures\":[{\"protected\":\"+/8=\"}]}\r\n",
       }) {
    EXPECT_EQ(CheckMessage(body, nullptr).problem, "") << body;
  }
}

struct ProblemCase {
  std::string body;
  const char* sentence;
};

TEST(MessageCheck, HostileBodiesAreRefusedWithAReason) {
  const std::string rest = R"(,"signatures":[{"protected":""}]})";
  const std::string good = R"({"payload":"eyJhcnJheSI6W119")";
  const ProblemCase cases[] = {
      {"", "the body is empty"},
      {"[]", "the body isn't a JSON object: it begins with"},
      {"{", "the body isn't valid JSON at byte 1: expected a member's name in quotes, found the end"},
      {good + rest + "x", "expected the end, found \"x\""},
      {good + rest + rest, "expected the end"},
      {good + "}", "the body has no member \"signatures\""},
      {"{\"payload\":\"\xff\"" + rest, "at byte 12: not valid UTF-8"},
      {R"({"payload":17)" + rest, "\"payload\" isn't a string but \"17\""},
      {R"({"payload":"eyJhcnJheSI6W119","payload":"")" + rest, "has the member \"payload\" twice"},
      {R"({"payload":"","p\u0061yload":"")" + rest, "has the member \"payload\" twice"},
      {R"({"payload":"","protected":"")" + rest, "a member that the format doesn't know: \"protected\""},
      {R"({"payload":"eyJhcnJheSI6W119)" + rest, "the body isn't valid JSON"},
      {R"({"payload":"eyJhcnJheSI6W11")" + rest, "isn't base-64: it has 15 characters"},
      {R"({"payload":"eyJhcnJheSI6W1 9")" + rest, "at character 15"},
      {R"({"payload":"-_8=")" + rest, "which isn't of the standard alphabet"},
      {R"({"payload":"AB==")" + rest, "ends in bits that stand for no byte"},
      {R"({"payload":"A===")" + rest, "isn't base-64"},
      {R"({"payload":"AA=A")" + rest, "isn't base-64"},
      {R"({"payload":"")" + rest, "the payload is empty"},
      {R"({"payload":"eyJhIjpbXX0=")" + rest, "the payload has no member \"array\""},
      {good + R"(,"signatures":{}})", "\"signatures\" isn't a JSON array"},
      {good + R"(,"signatures":[]})", "has 0 elements instead of exactly one"},
      {good + R"(,"signatures":[{"protected":""},{"protected":""}]})", "has 2 elements"},
      {good + R"(,"signatures":["x"]})", "the element of \"signatures\" isn't a JSON object"},
      {R"({"0":0,"1":0,"2":0,"3":0,"4":0,"5":0,"6":0,"7":0,"8":0,"9":0,"a":0,"b":0,"c":0,"d":0,"e":0,"f":0,"g":0})",
       "an object has too many members"},
      {good + R"(,"signatures":[{}]})", "has no member \"protected\""},
      {good + R"(,"signatures":[{"protected":"","header":{}}]})", "doesn't know: \"header\""},
      {good + R"(,"signatures":[{"protected":"A"}]})", "\"protected\" isn't base-64"},
      {Body(R"({"array":{}})"), "\"array\" of the payload isn't a JSON array"},
      {Body(R"({"array":[],"array":[]})"), "the payload has the member \"array\" twice"},
      {Body(R"({"array":[],"x":1})"), "doesn't know: \"x\""},
      {Body(R"({"array":[1],2})"), "the payload isn't valid JSON at byte 13"},
      {Body(std::string_view("{\"array\":[\"\0\"]}", 15)), "a control character stands in a string"},
      {Body("\xef\xbb\xbf{\"array\":[]}"), "the payload isn't a JSON object"},
      {Body("{\"array\":[\"\xed\xa0\x80\"]}"), "the payload isn't valid JSON at byte 11: not valid UTF-8"},
  };
  for (const ProblemCase& each : cases) {
    const MessageContent content = CheckMessage(each.body, nullptr);
    EXPECT_THAT(content.problem, HasSubstr(each.sentence)) << each.body;
    EXPECT_EQ(content.itemLines, "") << each.body;
  }
}

TEST(MessageCheck, PayloadGrammarIsStrict) {
  for (const char* item : {"01",      "1.",       ".5",         "+1",          "-",
                           "1e",      "0x1",      "NaN",        "tru",         "truee",
                           "nul",     "'a'",      "\"\\x\"",    "\"\\u12g4\"", "\"",
                           "[1,]",    "[,1]",     "[1 2]",      "[1:2]",       "[\"a\":1]",
                           "{\"a\"}", "{\"a\":}", "{\"a\":1,}", "{a:1}",       "{\"a\":1 \"b\":2}",
                           "[}",      "{]",       "[1]]",       "1,,2",        "/**/1"}) {
    const std::string payload = "{\"array\":[" + std::string(item) + "]}";
    EXPECT_THAT(CheckMessage(Body(payload), nullptr).problem,
                HasSubstr("the payload isn't valid JSON at byte"))
        << item;
  }
}

TEST(MessageCheck, DeepNestingIsRefusedBeforeTheStackEnds) {
  const auto nested = [](std::size_t depth) {
    return "{\"array\":[" + std::string(depth, '[') + std::string(depth, ']') + "]}";
  };
  EXPECT_EQ(CheckMessage(Body(nested(maxJsonDepth - 2)), nullptr).problem, "");
  EXPECT_THAT(CheckMessage(Body(nested(maxJsonDepth - 1)), nullptr).problem, HasSubstr("nested too deeply"));
  EXPECT_THAT(CheckMessage(std::string(1000000, '['), nullptr).problem, HasSubstr("isn't a JSON object"));
  EXPECT_THAT(CheckMessage(Body("{\"array\":" + std::string(1000000, '[')), nullptr).problem,
              HasSubstr("nested too deeply"));
}

TEST(MessageCheck, VerifierSeesPayloadAndBlockAndDecides) {
  std::string seen;
  const auto refuse = [&](std::string_view payload, std::string_view block) {
    seen = std::string(payload) + "|" + std::string(block);
    return std::string("the stamp is wrong");
  };
  const std::string body = Body(R"({"array":[1]})", std::string_view("h\0s", 3));
  const MessageContent refused = CheckMessage(body, refuse);
  EXPECT_EQ(seen, std::string("{\"array\":[1]}|h\0s", 17));
  EXPECT_THAT(refused.problem, HasSubstr("the stamp is wrong"));
  EXPECT_FALSE(refused.signatureChecked);
  const MessageContent passed =
      CheckMessage(body, [](std::string_view, std::string_view) { return std::string(); });
  EXPECT_EQ(passed.problem, "");
  EXPECT_TRUE(passed.signatureChecked);
  EXPECT_EQ(passed.signatureHeader, "h");
  EXPECT_EQ(passed.signature, "s");
}

TEST(MessageCheck, ContentTypeIsJson) {
  for (const char* good : {"application/json", "Application/JSON", "application/json; charset=utf-8"}) {
    EXPECT_EQ(ContentTypeProblem(good), "") << good;
  }
  for (const char* bad :
       {"", "text/plain", "application/jsonx", "application/json, text/plain", ";application/json"}) {
    EXPECT_NE(ContentTypeProblem(bad), "") << bad;
  }
}

TEST(Base64, EveryLengthComesBackAndNoOtherTextDoes) {
  std::mt19937 random(20);
  for (std::size_t length = 0; length < 100; ++length) {
    std::string bytes(length, '\0');
    for (char& each : bytes) each = static_cast<char>(random());
    const std::string text = EncodeBase64(bytes);
    std::string decoded;
    EXPECT_EQ(DecodeBase64(text, &decoded), "");
    EXPECT_EQ(decoded, bytes);
    if (text.empty()) continue;
    // One character less, one more, or a line end never passes.
    EXPECT_NE(DecodeBase64(text.substr(1), &decoded), "");
    EXPECT_NE(DecodeBase64(text + "\n", &decoded), "");
    EXPECT_EQ(decoded, "");
  }
}

}  // namespace
}  // namespace veld_report::server
