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
std::string Unescaped(std::string text) {
  for (std::size_t at = 0; (at = text.find('%', at)) != std::string::npos; ++at)
    text.replace(at, 3, 1, static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16)));
  return text;
}

// The lines of a file: "> " and a body, or ">> " and a payload that is put into one; then what the check
// makes of it, "! " and the sentence or "= N" and the items, each after "| ". Other lines are for the reader.
// VELD_REWRITE_TRANSCRIPTS writes the file anew.
TEST(MessageCheck, EachBodyGetsItsSentenceOrItems) {
  const std::string recorded = tests::ReadFile(MESSAGES);
  std::string checked;
  for (const std::string& line : tests::Lines(recorded)) {
    if (line.find_first_of("!=|") == 0) continue;
    checked += line + "\n";
    if (!line.starts_with(">")) continue;
    const std::size_t mark = line.starts_with(">>") ? 3 : 2;
    const std::string text = line.size() < mark ? "" : Unescaped(line.substr(mark));
    const MessageContent content = CheckMessage(mark == 3 ? Body(text) : text, nullptr);
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

// Bodies that are nested a million times are hostile clients'.
TEST(MessageCheck, NestingIsLimited) {
  for (const std::size_t depth : {maxJsonDepth - 2, maxJsonDepth - 1}) {
    const std::string item = "{\"\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
    const std::string problem = CheckMessage(Body("{\"array\":[" + item + "]}"), nullptr).problem;
    EXPECT_EQ(problem.find("nested too deeply") != std::string::npos, depth == maxJsonDepth - 1) << problem;
  }
}

TEST(MessageCheck, VerifierSeesPayloadAndBlockAndDecides) {
  const std::string body = Body(R"({"array":[{}]})", std::string_view("h\0s", 3));
  for (const std::string sentence : {"the stamp is wrong", ""}) {
    std::string seen;
    const MessageContent content = CheckMessage(body, [&](std::string_view payload, std::string_view block) {
      seen = std::string(payload) + "|" + std::string(block);
      return sentence;
    });
    EXPECT_EQ(seen, std::string("{\"array\":[{}]}|h\0s", 18));
    EXPECT_THAT(content.problem, HasSubstr(sentence));
    EXPECT_EQ(content.problem.empty(), sentence.empty());
    EXPECT_EQ(content.signatureChecked, sentence.empty());
    EXPECT_EQ(content.signatureHeader + content.signature, "hs");
  }
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
