// What the fuzz target of the serialiser leaves open: exact texts, the place of a failure, a record without
// end, and streams that fail. That every value of any kind reads back as it was is for the target.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "host/json/json_check.h"
#include "host/json/json_record.h"
#include "host/json/record_stamp.h"
#include "tests/host/json_serialize.h"
#include "tests/host/manual_clock.h"
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

struct OwnTime {
  Json outer{"{}"};
  std::string recordTime{"noon"};
};
VELD_RECORD(OwnTime, 4, outer, recordTime)

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

std::string WithStamp(const zel::AnyPtr& object, const std::shared_ptr<const RecordStamp>& stamp) {
  const std::string text = Serialize(object, MakeObject<StringStream>(), stamp).text;
  // The version and the variant are checked; the rest of an id is replaced.
  static const std::regex id("[0-9a-f]{8}-[0-9a-f]{4}-7[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
  return std::regex_replace(text, id, "ID");
}

TEST(Json, StampComesLastAndReplacesNothing) {
  const auto clock = std::make_shared<tests::ManualClock>();
  clock->Advance(std::chrono::hours(24 * 59 - 1) + std::chrono::milliseconds(45296007));
  const auto stamp = std::make_shared<RecordStamp>(true, clock);
  const auto common = std::make_shared<RecordStamp>(false, clock);
  common->SetCommon(RecordStamp::Prepare({{"b", "two"}, {"q\"", "\n"}}));
  const std::string id = R"("recordId":"ID")";
  const std::string time = R"("recordTime":"2026-03-01T11:34:56.007Z")";
  const std::string others = R"("b":"two","q\"":"\n")";
  const struct {
    std::string text, stamped, withCommon;
  } cases[] = {
      {" { } \n", "{" + id + "," + time + "}", "{" + others + "}"},
      {R"({"a":{"b":1}})", R"({"a":{"b":1},)" + id + "," + time + "}", R"({"a":{"b":1},)" + others + "}"},
      {R"({"record\u0049d":0,"b":1})", R"({"record\u0049d":0,"b":1,)" + time + "}",
       R"({"record\u0049d":0,"b":1,"q\"":"\n"})"},
      {R"({"recordTime":0})", R"({"recordTime":0,)" + id + "}", R"({"recordTime":0,)" + others + "}"},
      {R"([{}])", "[{}]", "[{}]"},
      {"{", "", ""},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(WithStamp(JsonRecord{each.text}.AsAny(), stamp), each.stamped);
    EXPECT_EQ(WithStamp(JsonRecord{each.text}.AsAny(), common), each.withCommon);
  }
  OwnTime structure;
  const zel::AnyPtr any(&structure, VeldRecordDescriptor(&structure));
  EXPECT_EQ(WithStamp(any, stamp), R"({"outer":{},"recordTime":"noon",)" + id + "}");
  EXPECT_EQ(WithStamp(any, common), R"({"outer":{},"recordTime":"noon",)" + others + "}");
  for (const char* name : {"", "b", "recordId"})
    EXPECT_THROW(RecordStamp::Prepare({{"b", ""}, {name, ""}}), std::invalid_argument) << name;
}

TEST(Json, IdsRiseWhateverThreadStampOrClockTheyAreOf) {
  const auto clock = std::make_shared<tests::ManualClock>();
  const RecordStamp early(true, clock), other(true, clock), real(true);
  const auto idOf = [](const RecordStamp& stamp) {
    const auto stream = MakeObject<StringStream>();
    JsonTextWriter writer{zel::Ref<zel::IIO>(stream)};
    stamp.Write(writer, true, [](std::string_view) { return false; });
    writer.Flush();
    return stream->text.substr(sizeof(R"("recordId":)"), 36);
  };
  std::vector<std::vector<std::string>> ids(4);
  std::vector<std::thread> threads;
  for (auto& own : ids) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i)
        for (const RecordStamp* stamp : {&early, &other, &real}) own.push_back(idOf(*stamp));
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> all;
  for (const auto& own : ids) {
    EXPECT_TRUE(std::is_sorted(own.begin(), own.end()));
    all.insert(own.begin(), own.end());
  }
  EXPECT_EQ(all.size(), std::size_t{4} * 5000 * 3);
}

}  // namespace
}  // namespace veld_report::host
