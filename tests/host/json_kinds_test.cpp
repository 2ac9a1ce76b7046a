// The exact text of a record where a value could be written in several ways. That every value of any kind
// reads back as it was is for the fuzz target of the serialiser.
#include <gtest/gtest.h>

#include <limits>

#include "host/json/json_check.h"
#include "host/json/json_record.h"
#include "tests/host/json_serialize.h"
#include "veld_report/field_kinds.h"

namespace veld_report::host {
namespace {

using namespace field_kinds;

TEST(JsonKinds, NumbersAreShortestTextAndEndlessOnesNull) {
  const auto text = [](auto value) { return SerializeValue(value, floatingPoint).text; };
  EXPECT_EQ(text(0.1f), R"({"v":0.1})");
  EXPECT_EQ(text(5e-324), R"({"v":5e-324})");
  EXPECT_EQ(text(35201383422587244544.0), R"({"v":3.5201383422587245e+19})");
  EXPECT_EQ(text(-0.0), R"({"v":-0})");
  EXPECT_EQ(text(std::numeric_limits<double>::infinity()), R"({"v":null})");
  EXPECT_EQ(text(std::numeric_limits<float>::quiet_NaN()), R"({"v":null})");
}

TEST(JsonKinds, JsonTextGoesOutAsItIsOnOneLine) {
  EXPECT_EQ(SerializeValue(std::string(" {\"a\" : [1,\n\t2.50e+3] }\r\n"), standardJsonText).text,
            R"({"v":{"a" : [1,2.50e+3] }})");
  JsonRecord record{"{\"a\":1}\n"};
  EXPECT_EQ(Serialize(record.AsAny()).text, R"({"a":1})");
  // The empty name makes a whole record of JSON text alone.
  EXPECT_EQ(SerializeValue(std::string("1"), standardString, 0, nullptr, "").text, R"({"":"1"})");
}

TEST(JsonKinds, WhatIsNotOneJsonValueIsRefusedWithItsPlace) {
  std::string deepest(JsonCheck::depthLimit, '[');
  deepest.append(JsonCheck::depthLimit, ']');
  EXPECT_EQ(Serialize(JsonRecord{deepest}.AsAny()).text, deepest);
  for (const std::string& text : {std::string(), std::string("1 2"), std::string("[1]\0x", 5),
                                  std::string("\"\xff\""), "[" + deepest + "]"}) {
    const Serialized result = SerializeValue(text, standardJsonText);
    EXPECT_EQ(result.code, zel::eInvalidArgument) << text;
    EXPECT_EQ(result.flush, zel::eInvalidArgument) << text;
    EXPECT_EQ(result.objectName, "One");
    EXPECT_EQ(result.fieldName, "v");
    EXPECT_EQ(result.index, zel::SerializeErrorLocation::noIndex);
  }
}

}  // namespace
}  // namespace veld_report::host
