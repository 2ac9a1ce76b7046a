// What the fuzz target of the serialiser leaves open: exact texts, the place of a failure, a record without
// end, and streams that fail. That every value of any kind reads back as it was is for the target.
#include <gtest/gtest.h>

#include <vector>

#include "host/json/json_check.h"
#include "host/json/json_record.h"
#include "tests/host/json_serialize.h"
#include "veld_report/record.h"

namespace veld_report::host {

struct Leaf {
  int number = 0;
  Json text{"null"};
};
VELD_RECORD(Leaf, 1, number, text)

struct Tree {
  std::vector<Json> texts{};
  std::vector<Leaf> leaves{};
  std::vector<double> numbers{};
};
VELD_RECORD(Tree, 2, texts, leaves, numbers)

struct Nested {
  std::vector<Nested> inner{};
};
VELD_RECORD(Nested, 3, inner)

namespace {

TEST(Json, FailureIsPlacedInInnermostRecordAndVector) {
  Leaf leaf{.text = {"{"}};
  Tree inTexts{.texts = {{"1"}, {"{"}}};
  Tree inLeaves{.leaves = {{}, {}, leaf}};
  const struct {
    Serialized result;
    const char *objectName, *fieldName;
    std::uint32_t index;
  } cases[] = {
      {SerializeRecord(leaf), "Leaf", "text", zel::SerializeErrorLocation::noIndex},
      {SerializeRecord(inTexts), "Tree", "texts", 1},
      {SerializeRecord(inLeaves), "Leaf", "text", 2},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(each.result.code, zel::eInvalidArgument);
    EXPECT_EQ(each.result.objectName, each.objectName);
    EXPECT_EQ(each.result.fieldName, each.fieldName);
    EXPECT_EQ(each.result.index, each.index);
  }
}

TEST(Json, RecordThatNeverSeemsToEndIsRefused) {
  Nested nested;
  for (int i = 0; i < 1000; ++i) nested = {.inner = {nested}};
  EXPECT_EQ(SerializeRecord(nested).code, zel::eNotSupported);
}

// At every length that the text can be cut at: never more than the stream took, always its code.
TEST(Json, StreamThatFailsOrIsFullFailsTheText) {
  Tree tree{.numbers = std::vector<double>(200, 4123456789)};  // leaves in several pieces
  const std::string whole = SerializeRecord(tree).text;
  EXPECT_GT(whole.size(), 11 * tree.numbers.size());
  for (std::uint64_t room = 0; room < whole.size(); ++room) {
    for (const zel::ResultCode answer : {zel::sOk, zel::eOutOfMemory}) {
      const auto stream = MakeObject<StringStream>();
      stream->roomBytes = room;
      stream->beyondRoom = answer;
      const Serialized result = SerializeRecord(tree, stream);
      EXPECT_EQ(result.flush, answer == zel::sOk ? zel::eOutOfSpace : answer);
      EXPECT_EQ(result.text, whole.substr(0, room));
      EXPECT_TRUE(room != 0 || result.index < 100) << "the walk went on after the failure";
    }
  }
}

TEST(Json, NumbersAreTheShortestText) {
  Tree tree{.numbers = {0.1, 35201383422587244544.0, -0.0}};
  EXPECT_EQ(SerializeRecord(tree).text,
            R"({"texts":[],"leaves":[],"numbers":[0.1,3.5201383422587245e+19,-0]})");
}

TEST(Json, FinishedTextGoesOutUnchangedIfItIsOneValue) {
  std::string deepest(JsonCheck::depthLimit, '[');
  deepest.append(JsonCheck::depthLimit, ']');
  for (const std::string& text : {std::string(R"({"a" : [2.50e+3] })"), deepest}) {
    EXPECT_EQ(Serialize(JsonRecord{" " + text + "\r\n"}.AsAny()).text, text);
  }
  for (const std::string& text : {std::string("1 2"), std::string("[1]\0x", 5), "[" + deepest + "]"}) {
    EXPECT_EQ(Serialize(JsonRecord{text}.AsAny()).code, zel::eInvalidArgument) << text;
  }
}

}  // namespace
}  // namespace veld_report::host
