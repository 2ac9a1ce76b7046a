// Random records with hostile text: whatever goes in, what comes out is JSON that simdjson reads back, with
// the values that went in. Run with --seed=N to repeat a run.
#include <gtest/gtest.h>
#include <simdjson.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>
#include <string_view>
#include <vector>

#include "host/json/field_helpers.h"
#include "host/json/field_kinds.h"
#include "host/json/json_record.h"
#include "tests/host/json_serialize.h"

namespace veld_report::host {
namespace {

std::uint64_t ChooseSeed() {
  for (const std::string& argument : testing::internal::GetArgvs()) {
    if (argument.starts_with("--seed=")) return std::strtoull(argument.c_str() + 7, nullptr, 10);
  }
  return std::random_device()();
}

struct Leaf {
  double number = 0;
  std::string text;
  std::u16string wide;
};
struct Tree {
  std::int64_t whole = 0;
  std::uint64_t positive = 0;
  Leaf leaf;
  std::vector<Leaf> leaves;
  std::optional<std::string> maybe;
};

constexpr zel::SerFieldDescriptor endRow = {.flags = zel::SerFieldDescriptor::endOfTable};
constexpr zel::SerFieldDescriptor leafTable[] = {
    {.typeId = field_kinds::floatingPoint, .name = "number", .offset = offsetof(Leaf, number), .size = 8},
    {.typeId = field_kinds::standardString, .name = "text", .offset = offsetof(Leaf, text)},
    {.typeId = field_kinds::standardWideString, .name = "wide", .offset = offsetof(Leaf, wide)},
    endRow};
constexpr zel::SerObjDescriptor leafDescriptor = {
    .serId = 5, .name = "Leaf", .size = sizeof(Leaf), .fields = leafTable};
struct LeafSource {
  static const zel::SerObjDescriptor* Get() { return &leafDescriptor; }
};
constexpr zel::SerFieldDescriptor treeTable[] = {
    {.typeId = field_kinds::signedInteger, .name = "whole", .offset = offsetof(Tree, whole), .size = 8},
    {.typeId = field_kinds::unsignedInteger,
     .name = "positive",
     .offset = offsetof(Tree, positive),
     .size = 8},
    {.typeId = 5,
     .name = "leaf",
     .flags = field_kinds::recordFlag,
     .offset = offsetof(Tree, leaf),
     .vectorHelper = &fieldHelper<NestedHelper<Leaf, LeafSource>>},
    {.typeId = 5,
     .name = "leaves",
     .flags = field_kinds::recordFlag | field_kinds::vectorFlag,
     .offset = offsetof(Tree, leaves),
     .vectorHelper = &fieldHelper<VectorHelper<std::vector<Leaf>, LeafSource>>},
    {.typeId = field_kinds::standardString,
     .name = "maybe",
     .flags = field_kinds::optionalFlag,
     .offset = offsetof(Tree, maybe),
     .vectorHelper = &fieldHelper<OptionalHelper<std::string>>},
    endRow};
constexpr zel::SerObjDescriptor treeDescriptor = {
    .serId = 6, .name = "Tree", .size = sizeof(Tree), .fields = treeTable};

class Source {
 public:
  explicit Source(std::uint64_t seed) : random_(seed) {}

  std::uint64_t Bits() { return random_(); }
  std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(random_() % limit); }
  std::string Bytes() {
    // Bytes that begin, continue and break sequences, and those that JSON escapes, more often than others.
    constexpr std::string_view loved = "\"\\\n{}[],:\x80\xbf\xc0\xc2\xe0\xed\xa0\xf0\xf4\x90\xff";
    std::string text(Below(40), '\0');
    for (char& character : text) {
      character = Below(2) == 0 ? loved[Below(loved.size())] : static_cast<char>(Below(256));
    }
    return text;
  }
  std::u16string Units() {
    std::u16string text(Below(20), u'\0');
    for (char16_t& unit : text) {
      unit = static_cast<char16_t>(Below(2) == 0 ? 0xd700 + Below(0xa00) : Below(0x10000));
    }
    return text;
  }
  double Number() {
    const std::uint64_t bits = Bits();
    double number = 0;
    std::memcpy(&number, &bits, sizeof number);
    return number;
  }
  Leaf MakeLeaf() { return {Number(), Bytes(), Units()}; }
  Tree MakeTree() {
    Tree tree{static_cast<std::int64_t>(Bits()), Bits(), MakeLeaf(), {}, {}};
    for (std::size_t i = Below(5); i > 0; --i) tree.leaves.push_back(MakeLeaf());
    if (Below(2) == 0) tree.maybe = Bytes();
    return tree;
  }

 private:
  std::mt19937_64 random_;
};

void ExpectSame(const Leaf& leaf, simdjson::dom::element json) {
  if (std::isfinite(leaf.number)) {
    EXPECT_EQ(json["number"].get_double().value(), leaf.number);
  } else {
    EXPECT_TRUE(json["number"].is_null());
  }
  EXPECT_TRUE(json["text"].is_string());
  EXPECT_TRUE(json["wide"].is_string());
}

TEST(JsonRandom, WhateverGoesInReadsBack) {
  const std::uint64_t seed = ChooseSeed();
  std::cout << "seed " << seed << "\n";
  RecordProperty("seed", std::to_string(seed));
  Source source(seed);
  simdjson::dom::parser parser;
  for (int round = 0; round < 3000 && !HasFailure(); ++round) {
    Tree tree = source.MakeTree();
    const Serialized result = Serialize(zel::AnyPtr(&tree, &treeDescriptor));
    ASSERT_EQ(result.code, zel::sOk) << "seed " << seed;
    simdjson::dom::element json;
    ASSERT_EQ(parser.parse(result.text).get(json), simdjson::SUCCESS)
        << "seed " << seed << ": " << result.text;
    EXPECT_EQ(json["whole"].get_int64().value(), tree.whole);
    EXPECT_EQ(json["positive"].get_uint64().value(), tree.positive);
    EXPECT_EQ(json["leaves"].get_array().value().size(), tree.leaves.size());
    EXPECT_EQ(json["maybe"].error() == simdjson::SUCCESS, tree.maybe.has_value());
    ExpectSame(tree.leaf, json["leaf"].value());
    std::size_t i = 0;
    const simdjson::dom::array leaves = json["leaves"].get_array().value();
    for (const auto leaf : leaves) ExpectSame(tree.leaves[i++], leaf);
  }
}

// A good text with a few bytes changed: it is either refused, or what leaves is still JSON on one line.
TEST(JsonRandom, DamagedJsonTextNeverLeaves) {
  const std::uint64_t seed = ChooseSeed();
  std::cout << "seed " << seed << "\n";
  Source source(seed);
  simdjson::dom::parser parser;
  for (int round = 0; round < 20000 && !HasFailure(); ++round) {
    JsonRecord record{R"({"a":[1,2.5e3,true,null,"x\u00e9\n"],  "b":{"c":"\"","d":{}}})"};
    for (std::size_t i = source.Below(4); i > 0; --i) {
      record.text[source.Below(record.text.size())] = static_cast<char>(source.Below(256));
    }
    const Serialized result = Serialize(record.AsAny());
    if (zel::Failed(result.code)) {
      EXPECT_NE(result.flush, zel::sOk);
      continue;
    }
    EXPECT_EQ(parser.parse(result.text).error(), simdjson::SUCCESS) << "seed " << seed << ": " << result.text;
    EXPECT_EQ(result.text.find_first_of("\n\r"), std::string::npos) << "seed " << seed;
  }
}

}  // namespace
}  // namespace veld_report::host
