// Described structs and records built at run time, as JSON text.
#include <gtest/gtest.h>

#include <limits>

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

struct Event {
  std::string version{};
  std::int64_t startupMs = 0;
  bool firstRun = false;
  Level level = Level::low;
  unsigned short port = 0;
  float share = 0;
  std::u16string wide{};
  Part part{};
  std::vector<Part> parts{};
  std::optional<Part> maybe{};
  std::optional<int> number{};
  std::vector<std::string> tags{};
  std::vector<bool> flags{};
  veld_report::Json extra{"null"};
  int notSent = 0;
};
VELD_RECORD(Event, 0x102, version, (startupMs, "startup-ms"), firstRun, level, port, share, wide, part, parts,
            maybe, number, tags, flags, extra)

struct Nothing {};
VELD_RECORD(Nothing, 0x103)

}  // namespace application

struct Outside {
  zel::string text{};
};
VELD_RECORD(Outside, 0x104, text);

namespace veld_report {
namespace {

TEST(Record, EveryKindOfFieldGoesUnderItsName) {
  application::Event event{.version = "4.2.0",
                           .startupMs = -312,
                           .firstRun = true,
                           .level = application::Level::high,
                           .port = 65535,
                           .share = 0.5f,
                           .wide = u"\u00fc",
                           .part = {"p", 1.25},
                           .parts = {{"a", 1}, {"b", 2}},
                           .maybe = application::Part{"m", 0},
                           .number = 7,
                           .tags = {"x", "y"},
                           .flags = {true, false},
                           .extra = {R"({"k": [1]})"}};
  EXPECT_EQ(
      host::SerializeRecord(event).text,
      R"({"version":"4.2.0","startup-ms":-312,"firstRun":true,"level":1,"port":65535,"share":0.5,)"
      "\"wide\":\"\xc3\xbc\","
      R"("part":{"name":"p","w":1.25},"parts":[{"name":"a","w":1},{"name":"b","w":2}],)"
      R"("maybe":{"name":"m","w":0},"number":7,"tags":["x","y"],"flags":[true,false],"extra":{"k": [1]}})");
}

TEST(Record, EmptyOnesAreLeftOutOrEmpty) {
  application::Event event;
  EXPECT_EQ(host::SerializeRecord(event).text,
            R"({"version":"","startup-ms":0,"firstRun":false,"level":0,"port":0,"share":0,"wide":"",)"
            R"("part":{"name":"","w":0},"parts":[],"tags":[],"flags":[],"extra":null})");
  application::Nothing nothing;
  EXPECT_EQ(host::SerializeRecord(nothing).text, "{}");
  Outside outside{zel::string("o")};
  EXPECT_EQ(host::SerializeRecord(outside).text, R"({"text":"o"})");
}

TEST(RecordBuilder, WritesEachKindInTheOrderOfTheCalls) {
  const std::string owned = "s";
  const RecordBuilder inner = RecordBuilder().Add("a", 1);
  EXPECT_EQ(RecordBuilder().Text(), "{}");
  EXPECT_EQ(
      RecordBuilder()
          .Add("lit\"eral", "q\"\n")
          .Add("owned", owned)
          .Add("view", std::string_view("\xff"))
          .Add("null", static_cast<const char*>(nullptr))
          .Add("yes", true)
          .Add("least", std::numeric_limits<std::int64_t>::min())
          .Add("most", UINT64_MAX)
          .Add("small", std::int8_t{-1})
          .Add("pi", 3.25)
          .Add("nan", std::numeric_limits<double>::quiet_NaN())
          .Add("inner", inner)
          .Add("json", Json{"[1,2]"})
          .Add("list", std::vector<std::string>{"x", "y"})
          .Add("bits", std::vector<bool>{true, false})
          .Add("inners", std::vector<RecordBuilder>{inner, inner})
          .Add("holes", std::vector<std::optional<int>>{1, std::nullopt})
          .Add("none", std::optional<int>())
          .Add("some", std::optional<int>(5))
          .Text(),
      "{\"lit\\\"eral\":\"q\\\"\\n\",\"owned\":\"s\",\"view\":\"\xef\xbf\xbd\",\"null\":null,\"yes\":true,"
      "\"least\":-9223372036854775808,\"most\":18446744073709551615,\"small\":-1,\"pi\":3.25,\"nan\":null,"
      "\"inner\":{\"a\":1},\"json\":[1,2],\"list\":[\"x\",\"y\"],\"bits\":[true,false],"
      "\"inners\":[{\"a\":1},{\"a\":1}],\"holes\":[1,null],\"some\":5}");
}

}  // namespace
}  // namespace veld_report
