// Described structs and records built at run time, as JSON text.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <unordered_map>
#include <variant>

#include "tests/host/json_serialize.h"
#include "veld_report/record.h"
#include "veld_report/record_builder.h"

namespace application {

enum class Level : std::uint8_t { low, high };

struct Part {
  std::string name{};
  double weight = 0;
};
VELD_RECORD(Part, 0x101, name, (weight, "w"))

enum class Channel : std::int8_t { shop = -1, web = 40, unlisted = 41 };
VELD_ENUM(Channel, shop, (web, "World Wide Web"))

struct Tree {
  std::vector<std::vector<Tree>> rows{};
  std::map<std::string, Tree> named{};
};
VELD_RECORD(Tree, 0x105, rows, named)

struct Nothing {};
VELD_RECORD(Nothing, 0x103)

}  // namespace application

struct Outside {
  zel::string text{};
};
VELD_RECORD(Outside, 0x104, text);

namespace veld_report {
namespace {

// A record with one field of any type.
template <class T>
std::string JsonOf(T value) {
  static_assert(record_detail::IsField<T>());
  static constexpr zel::SerFieldDescriptor rows[] = {record_detail::DescribeField<T>("v", 0),
                                                     record_detail::EndOfTable()};
  static constexpr zel::SerObjDescriptor descriptor = {1, "One", sizeof(T), rows};
  return host::Serialize(zel::AnyPtr(&value, &descriptor)).text;
}

TEST(Record, EachTypeOfFieldHasItsForm) {
  using application::Channel;
  using application::Level;
  using application::Nothing;
  using application::Part;
  using application::Tree;
  using namespace std::chrono;
  using Either = std::variant<Part, Nothing>;
  using Map = std::map<std::string, std::optional<int>>;
  using Maybe = std::optional<std::optional<int>>;
  const sys_days day = 2024y / 2 / 29;
  Outside outside{zel::string("o")};
  const std::pair<std::string, std::string> cases[] = {
      {host::SerializeRecord(outside).text, R"({"text":"o"})"},
      {JsonOf(std::string()), R"({"v":""})"},
      {JsonOf(std::int64_t{-312}), R"({"v":-312})"},
      {JsonOf(true), R"({"v":true})"},
      {JsonOf(Level::high), R"({"v":1})"},
      {JsonOf<unsigned short>(65535), R"({"v":65535})"},
      {JsonOf(0.5f), R"({"v":0.5})"},
      {JsonOf(std::vector{0.1, 35201383422587244544.0, -0.0}), R"({"v":[0.1,3.5201383422587245e+19,-0]})"},
      {JsonOf(std::u16string(u"\u00fc")), "{\"v\":\"\xc3\xbc\"}"},
      {JsonOf(Part{"p", 1.25}), R"({"v":{"name":"p","w":1.25}})"},
      {JsonOf(Nothing()), R"({"v":{}})"},
      {JsonOf(std::vector<Part>{{"a", 1}, {"b", 2}}), R"({"v":[{"name":"a","w":1},{"name":"b","w":2}]})"},
      {JsonOf(std::optional<Part>({"m", 0})), R"({"v":{"name":"m","w":0}})"},
      {JsonOf(std::vector{true, false}), R"({"v":[true,false]})"},
      {JsonOf(Json{R"({"k": [1]})"}), R"({"v":{"k": [1]}})"},
      {JsonOf(Map{{"b", 2}, {"a\"", {}}}), R"({"v":{"a\"":null,"b":2}})"},
      {JsonOf(std::unordered_map<std::string, Part>{{"", {"p", 1}}}), R"({"v":{"":{"name":"p","w":1}}})"},
      {JsonOf(std::map<std::string_view, std::vector<bool>>{}), R"({"v":{}})"},
      {JsonOf(std::array<int, 3>{1, 2, 3}), R"({"v":[1,2,3]})"},
      {JsonOf(std::array<std::array<Part, 1>, 1>{{{{{"p", 1}}}}}), R"({"v":[[{"name":"p","w":1}]]})"},
      {JsonOf(std::array<int, 0>{}), R"({"v":[]})"},
      {JsonOf(std::vector<std::vector<std::string>>{{"a"}, {}}), R"({"v":[["a"],[]]})"},
      {JsonOf(std::optional<std::vector<int>>()), "{}"},
      {JsonOf(std::optional(std::vector<int>{1})), R"({"v":[1]})"},
      {JsonOf(Maybe()), "{}"},
      {JsonOf(Maybe(std::optional<int>())), R"({"v":null})"},
      {JsonOf(Maybe(7)), R"({"v":7})"},
      {JsonOf(Channel::shop), R"({"v":"shop"})"},
      {JsonOf(Channel::unlisted), "{}"},
      {JsonOf(std::vector{Channel::web, Channel::unlisted}), R"({"v":["World Wide Web",null]})"},
      {JsonOf(Either(Part{"p", 1})), R"({"v":{"Part":{"name":"p","w":1}}})"},
      {JsonOf(std::vector<Either>{Nothing()}), R"({"v":[{"Nothing":{}}]})"},
      {JsonOf(Tree{{{Tree()}}, {{"t", Tree()}}}),
       R"({"v":{"rows":[[{"rows":[],"named":{}}]],"named":{"t":{"rows":[],"named":{}}}}})"},
      {JsonOf(milliseconds(-5)), R"({"v":-5})"},
      {JsonOf(duration<float>(0.5f)), R"({"v":0.5})"},
      {JsonOf(sys_time<nanoseconds>(-1ns)), R"({"v":"1969-12-31T23:59:59.999999999Z"})"},
      {JsonOf(sys_time<microseconds>(day + 1us)), R"({"v":"2024-02-29T00:00:00.000001Z"})"},
      {JsonOf(sys_time<milliseconds>(day + 23h + 59min)), R"({"v":"2024-02-29T23:59:00.000Z"})"},
      {JsonOf(std::optional(sys_seconds(0s))), R"({"v":"1970-01-01T00:00:00Z"})"},
      {JsonOf(sys_seconds(sys_days(9999y / 12 / 31) + 24h - 1s)), R"({"v":"9999-12-31T23:59:59Z"})"},
      {JsonOf(std::array{day, sys_days(0y / 1 / 1)}),
       R"({"v":["2024-02-29T00:00:00Z","0000-01-01T00:00:00Z"]})"},
      {JsonOf(std::array{sys_days(-1y / 12 / 31), sys_days::max()}), R"({"v":[null,null]})"},
  };
  for (const auto& [json, expected] : cases) EXPECT_EQ(json, expected);
  static_assert(!record_detail::IsField<std::multimap<std::string, int>>());
  static_assert(!record_detail::IsField<std::vector<std::map<int, int>>>());
  static_assert(!record_detail::IsField<std::variant<Part, int>>());
  static_assert(!record_detail::IsField<steady_clock::time_point>());
  static_assert(!record_detail::IsField<sys_time<hours>>());
  static_assert(!record_detail::IsField<long double>() && !record_detail::IsField<const char*>());
}

TEST(RecordBuilder, WritesEachKindInTheOrderOfTheCalls) {
  const RecordBuilder inner = RecordBuilder().Add("a", 1);
  EXPECT_EQ(RecordBuilder().Text(), "{}");
  EXPECT_EQ(RecordBuilder()
                .Add("lit\"eral", "q\"\n")
                .Add("view", std::string_view("\xff"))
                .Add("null", static_cast<const char*>(nullptr))
                .Add("yes", true)
                .Add("least", INT64_MIN)
                .Add("most", UINT64_MAX)
                .Add("pi", 3.25)
                .Add("nan", std::nan(""))
                .Add("inner", inner)
                .Add("json", Json{"[1,2]"})
                .Add("holes", std::vector<std::optional<int>>{1, std::nullopt})
                .Add("none", std::optional<int>())
                .Text(),
            "{\"lit\\\"eral\":\"q\\\"\\n\",\"view\":\"\xef\xbf\xbd\",\"null\":null,\"yes\":true,"
            "\"least\":-9223372036854775808,\"most\":18446744073709551615,\"pi\":3.25,\"nan\":null,"
            "\"inner\":{\"a\":1},\"json\":[1,2],"
            "\"holes\":[1,null]}");
}

}  // namespace
}  // namespace veld_report
