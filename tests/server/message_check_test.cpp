#include "server/message_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "server/json_reader.h"
#include "tests/common/files.h"
#include "tests/server/message_builder.h"

namespace veld_report::server {
namespace {

using server_test::Body;
using testing::HasSubstr;

// "%0a" stands for a byte that a line of text can't hold.
std::string Unescaped(std::string_view text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      bytes += text[at];
      continue;
    }
    bytes += static_cast<char>(std::stoi(std::string(text.substr(at + 1, 2)), nullptr, 16));
    at += 2;
  }
  return bytes;
}

// The lines of a file: "> " and a body, or ">> " and a payload that is put into one; then what the check
// makes of it,
// "! " and the sentence or "= N" and the items, each behind "| ". Other lines are for the reader.
// VELD_REWRITE_TRANSCRIPTS writes the file anew.
TEST(MessageCheck, EachBodyGetsItsSentenceOrItems) {
  const std::string recorded = tests::ReadFile(MESSAGES);
  std::string checked;
  for (const std::string& line : tests::Lines(recorded)) {
    if (line.find_first_of("!=|") == 0) continue;
    checked += line + "\n";
    if (!line.starts_with(">")) continue;
    const bool wrapped = line.starts_with(">>");
    const std::size_t mark = wrapped ? 3 : 2;
    const std::string text = line.size() < mark ? "" : Unescaped(std::string_view(line).substr(mark));
    const MessageContent content = CheckMessage(wrapped ? Body(text) : text, nullptr);
    if (!content.problem.empty()) {
      checked += "! " + content.problem + "\n";
      EXPECT_EQ(content.itemLines, "") << line;
      continue;
    }
    checked += "= " + std::to_string(content.itemCount) + "\n";
    for (const std::string& item : tests::Lines(content.itemLines)) checked += "| " + item + "\n";
  }
  if (std::getenv("VELD_REWRITE_TRANSCRIPTS")) return tests::WriteFile(MESSAGES, checked);
  EXPECT_EQ(checked, recorded) << "VELD_REWRITE_TRANSCRIPTS=1 records it anew";
}

TEST(MessageCheck, WorkedExamplePasses) {
  const MessageContent content = CheckMessage(server_test::exampleBody, nullptr);
  EXPECT_EQ(content.problem, "");
  EXPECT_EQ(content.payloadText, R"({"array":[{"a":1},{"b":2}]})");
  EXPECT_EQ(content.itemLines, "{\"a\":1}\n{\"b\":2}\n");
  EXPECT_EQ(content.signatureHeader, R"({"alg":"none"})");
  EXPECT_EQ(content.signature, "");
  EXPECT_FALSE(content.signatureChecked);
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

}  // namespace
}  // namespace veld_report::server
