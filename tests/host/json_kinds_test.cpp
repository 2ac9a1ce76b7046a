// What the serialiser writes for each kind of field.
#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <vector>

#include "host/json/field_helpers.h"
#include "host/json/field_kinds.h"
#include "host/json/json_check.h"
#include "host/json/json_record.h"
#include "tests/host/json_serialize.h"
#include "types/vector.h"

namespace veld_report::host {
namespace {

using namespace field_kinds;

template <class T>
std::string TextOf(T value, std::uint32_t kind, std::uint32_t flags = 0,
                   zel::SerVectorHelper* helper = nullptr) {
  const Serialized result = SerializeValue(std::move(value), kind, flags, helper);
  EXPECT_EQ(result.code, zel::sOk);
  EXPECT_EQ(result.flush, zel::sOk);
  return result.text;
}

TEST(JsonKinds, PlainValues) {
  EXPECT_EQ(TextOf(std::uint8_t{0}, boolean), R"({"v":false})");
  EXPECT_EQ(TextOf(std::int8_t{-128}, signedInteger), R"({"v":-128})");
  EXPECT_EQ(TextOf(std::int16_t{-1}, signedInteger), R"({"v":-1})");
  EXPECT_EQ(TextOf(std::numeric_limits<std::int32_t>::min(), signedInteger), R"({"v":-2147483648})");
  EXPECT_EQ(TextOf(std::numeric_limits<std::int64_t>::min(), signedInteger), R"({"v":-9223372036854775808})");
  EXPECT_EQ(TextOf(std::uint16_t{65535}, unsignedInteger), R"({"v":65535})");
  EXPECT_EQ(TextOf(UINT32_MAX, unsignedInteger), R"({"v":4294967295})");
  EXPECT_EQ(TextOf(UINT64_MAX, unsignedInteger), R"({"v":18446744073709551615})");
  EXPECT_EQ(TextOf(0.1f, floatingPoint), R"({"v":0.1})");
  EXPECT_EQ(TextOf(5e-324, floatingPoint), R"({"v":5e-324})");
  EXPECT_EQ(TextOf(35201383422587244544.0, floatingPoint), R"({"v":3.5201383422587245e+19})");
  EXPECT_EQ(TextOf(-0.0, floatingPoint), R"({"v":-0})");
  EXPECT_EQ(TextOf(std::numeric_limits<double>::infinity(), floatingPoint), R"({"v":null})");
  EXPECT_EQ(TextOf(std::numeric_limits<float>::quiet_NaN(), floatingPoint), R"({"v":null})");
  EXPECT_EQ(TextOf(std::string_view("s"), stringView), R"({"v":"s"})");
  EXPECT_EQ(TextOf(zel::string("longer than fits inline"), narrowString),
            R"({"v":"longer than fits inline"})");
}

TEST(JsonKinds, VectorsAndOptionals) {
  EXPECT_EQ(TextOf(std::vector<bool>{true, false}, boolean, vectorFlag,
                   &fieldHelper<VectorHelper<std::vector<bool>>>),
            R"({"v":[true,false]})");
  auto* const wideTexts = &fieldHelper<VectorHelper<zel::vector_t<zel::wstring>>>;
  zel::vector_t<zel::wstring> wide;
  EXPECT_EQ(TextOf(wide, wideString, vectorFlag, wideTexts), R"({"v":[]})");
  wide.push_back(zel::wstring(u"\u00e9"));
  EXPECT_EQ(TextOf(wide, wideString, vectorFlag, wideTexts), "{\"v\":[\"\xc3\xa9\"]}");
  auto* const optional = &fieldHelper<OptionalHelper<double>>;
  EXPECT_EQ(TextOf(std::optional<double>(1.5), floatingPoint, optionalFlag, optional), R"({"v":1.5})");
  EXPECT_EQ(TextOf(std::optional<double>(), floatingPoint, optionalFlag, optional), R"({})");
}

// Everything that must not reach a reader as it is, and everything that must.
TEST(JsonKinds, TextIsAlwaysValidUtf8AndEscaped) {
  using namespace std::string_view_literals;
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"\"\\/\b\f\n\r\t"sv, R"(\"\\/\b\f\n\r\t)"sv},
      {"\0\x01\x1f\x7f"sv, "\\u0000\\u0001\\u001f\x7f"sv},
      {"\xe2\x82\xac \xf0\x9f\x98\x80"sv, "\xe2\x82\xac \xf0\x9f\x98\x80"sv},
      {"\xe2\x80\xa8"sv, "\xe2\x80\xa8"sv},          // a line separator is no control character
      {"a\x80z"sv, "a\xef\xbf\xbdz"sv},              // a continuation without a beginning
      {"\xc0\xaf"sv, "\xef\xbf\xbd\xef\xbf\xbd"sv},  // overlong
      {"\xe2\x82z"sv, "\xef\xbf\xbdz"sv},            // cut by the next character
      {"\xf0\x9f\x98"sv, "\xef\xbf\xbd"sv},          // cut by the end
      {"\xed\xa0\x80"sv, "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"sv},                  // a surrogate
      {"\xf4\x90\x80\x80"sv, "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd"sv},  // above the last one
      {"\xf1\x80\x80\xe1\x80\xc2\x62"sv, "\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\x62"sv},
      {"\xff\""sv, "\xef\xbf\xbd\\\""sv},
  };
  for (const auto& [raw, written] : cases) {
    EXPECT_EQ(TextOf(raw, stringView), "{\"v\":\"" + std::string(written) + "\"}");
  }
  const std::u16string wide = {u'a', u'"', 0x20ac, 0xd83d, 0xde00, 0xd83d, u'b', 0xde00, 0xd83d};
  EXPECT_EQ(TextOf(wide, standardWideString),
            "{\"v\":\"a\\\"\xe2\x82\xac\xf0\x9f\x98\x80\xef\xbf\xbd"
            "b\xef\xbf\xbd\xef\xbf\xbd\"}");
  EXPECT_EQ(SerializeValue(true, boolean, 0, nullptr, "a\"b").text, R"({"a\"b":true})");
}

TEST(JsonKinds, JsonTextGoesOutAsItIsOnOneLine) {
  EXPECT_EQ(TextOf(std::string(" {\"a\" : [1,\n\t2.50e+3] }\r\n"), standardJsonText),
            R"({"v":{"a" : [1,2.50e+3] }})");
  EXPECT_EQ(TextOf(zel::string("null"), jsonText), R"({"v":null})");
  JsonRecord record{"{\"a\":1}\n"};
  EXPECT_EQ(Serialize(record.AsAny()).text, R"({"a":1})");
  const std::string deepest =
      std::string(JsonCheck::depthLimit, '[') + std::string(JsonCheck::depthLimit, ']');
  EXPECT_EQ(Serialize(JsonRecord{deepest}.AsAny()).text, deepest);
  // In a row with a name, or beside another row, the empty name is a member like any other.
  EXPECT_EQ(SerializeValue(std::string("1"), standardString, 0, nullptr, "").text, R"({"":"1"})");
}

TEST(JsonKinds, TextThatIsNotOneJsonValueIsRefusedWithItsPlace) {
  const std::string deep(JsonCheck::depthLimit + 1, '[');
  const std::string deepEnd(JsonCheck::depthLimit + 1, ']');
  std::vector<std::string> texts = {"",     " ",       "{",   "{\"a\":1}{", "1 2",
                                    "[1,]", "{'a':1}", "nul", "\"\x01\"",   "\"\xff\"",
                                    "01",   "\"\\q\"", "+1",  "{\"a\" 1}",  "\xef\xbb\xbf{}"};
  texts.push_back(deep + deepEnd);
  texts.emplace_back("[1]\0x", 5);
  for (const std::string& text : texts) {
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
