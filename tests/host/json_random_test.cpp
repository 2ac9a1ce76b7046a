// Random records with hostile text: whatever goes in, what comes out is JSON that simdjson reads back, with
// the values that went in. Run with --seed=N to repeat a run.
#include <gtest/gtest.h>
#include <simdjson.h>

#include <bit>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "host/include/veld_report/record.h"
#include "host/json/json_record.h"
#include "tests/host/json_serialize.h"

namespace veld_report::host {
namespace {

struct Leaf {
  double number = 0;
  std::string text{};
  std::u16string wide{};
};
VELD_RECORD(Leaf, 5, number, text, wide)
struct Tree {
  std::int64_t whole = 0;
  std::uint64_t positive = 0;
  std::vector<Leaf> leaves{};
  std::optional<std::string> maybe{};
};
VELD_RECORD(Tree, 6, whole, positive, leaves, maybe)

class JsonRandom : public testing::Test {
 protected:
  JsonRandom() {
    for (const std::string& argument : testing::internal::GetArgvs()) {
      if (argument.starts_with("--seed=")) seed = std::strtoull(argument.c_str() + 7, nullptr, 10);
    }
    random.seed(seed);
  }
  std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(random() % limit); }
  std::string Bytes() {
    // Bytes that begin, continue and break sequences, and those that JSON escapes, more often than others.
    constexpr std::string_view loved = "\"\\\n{}[],:\x80\xbf\xc0\xc2\xe0\xed\xa0\xf0\xf4\x90\xff";
    std::string text(Below(40), '\0');
    for (char& byte : text) byte = Below(2) ? loved[Below(loved.size())] : static_cast<char>(Below(256));
    return text;
  }
  std::u16string Units() {
    std::u16string text(Below(20), u'\0');
    for (auto& unit : text) unit = static_cast<char16_t>(Below(2) ? 0xd700 + Below(0xa00) : Below(0x10000));
    return text;
  }

  std::uint64_t seed = std::random_device()();
  std::mt19937_64 random;
  const testing::ScopedTrace trace{__FILE__, __LINE__, "seed " + std::to_string(seed)};
  simdjson::dom::parser parser;
};

TEST_F(JsonRandom, WhateverGoesInReadsBack) {
  for (int round = 0; round < 3000 && !HasFailure(); ++round) {
    Tree tree{static_cast<std::int64_t>(random()), random()};
    for (std::size_t i = Below(5); i > 0; --i) {
      tree.leaves.push_back({std::bit_cast<double>(std::uint64_t{random()}), Bytes(), Units()});
    }
    if (Below(2) == 0) tree.maybe = Bytes();
    const Serialized result = Serialize(zel::AnyPtr(&tree, VeldRecordDescriptor(&tree)));
    ASSERT_EQ(result.code, zel::sOk);
    simdjson::dom::element json;
    ASSERT_EQ(parser.parse(result.text).get(json), simdjson::SUCCESS) << result.text;
    EXPECT_EQ(json["whole"].get_int64().value(), tree.whole);
    EXPECT_EQ(json["positive"].get_uint64().value(), tree.positive);
    EXPECT_EQ(json["maybe"].error() == simdjson::SUCCESS, tree.maybe.has_value());
    const simdjson::dom::array leaves = json["leaves"].get_array().value();
    ASSERT_EQ(leaves.size(), tree.leaves.size());
    for (std::size_t i = 0; i < tree.leaves.size(); ++i) {
      const simdjson::dom::element leaf = leaves.at(i).value();
      const double number = tree.leaves[i].number;
      EXPECT_TRUE(std::isfinite(number) ? leaf["number"].get_double().value() == number
                                        : leaf["number"].is_null());
      EXPECT_TRUE(leaf["text"].is_string() && leaf["wide"].is_string());
    }
  }
}

// A good text with a few bytes changed: it is either refused, or what leaves is still JSON on one line.
TEST_F(JsonRandom, DamagedJsonTextNeverLeaves) {
  for (int round = 0; round < 20000 && !HasFailure(); ++round) {
    JsonRecord record{R"({"a":[1,2.5e3,true,null,"x\u00e9\n"],  "b":{"c":"\"","d":{}}})"};
    for (std::size_t i = Below(4); i > 0; --i) {
      record.text[Below(record.text.size())] = static_cast<char>(Below(256));
    }
    const Serialized result = Serialize(record.AsAny());
    if (zel::Failed(result.code)) {
      EXPECT_NE(result.flush, zel::sOk);
      continue;
    }
    EXPECT_EQ(parser.parse(result.text).error(), simdjson::SUCCESS) << result.text;
    EXPECT_EQ(result.text.find_first_of("\n\r"), std::string::npos);
  }
}

}  // namespace
}  // namespace veld_report::host
