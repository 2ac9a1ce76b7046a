// What send is made of, without a module.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "apps/veldrep/line_reader.h"
#include "apps/veldrep/queue_room.h"
#include "apps/veldrep/text.h"
#include "tests/common/files.h"
#include "tests/common/temporary_folder.h"

namespace veld_report::app {
namespace {

// What LineReader makes of a whole file: the lines, "<too long>" for one over the limit.
std::vector<std::string> ReadAll(const std::string& text, std::size_t limit) {
  const tests::TemporaryFolder folder;
  tests::WriteFile(folder / "in", text);
  LineReader reader(folder / "in", limit);
  std::vector<std::string> lines;
  for (;;) {
    std::string_view line;
    const LineReader::Result result = reader.Next(std::chrono::seconds(10), &line);
    if (result == LineReader::Result::end) break;
    lines.push_back(result == LineReader::Result::tooLong ? "<too long>" : std::string(line));
    EXPECT_EQ(reader.LineNumber(), lines.size());
  }
  EXPECT_EQ(reader.BytesRead(), text.size());
  return lines;
}

// Lines longer than the reader's block; what it makes of short ones is fuzzed.
TEST(LineReader, LongLinesComeOutWholeOrAreSkipped) {
  const std::string large(300'000, 'x'), larger(2'000'000, 'x');
  using Lines = std::vector<std::string>;
  EXPECT_EQ(ReadAll(large + "\n" + large + "\nend", 1'000'000), (Lines{large, large, "end"}));
  EXPECT_EQ(ReadAll("a\n" + larger + "\nb\n", 1'000'000), (Lines{"a", "<too long>", "b"}));
  EXPECT_EQ(ReadAll("a\n" + larger, 5), (Lines{"a", "<too long>"}));
}

TEST(QueueRoom, QueueNeverHasToDropItsOwnItems) {
  Ledgers ledgers;
  ledgers["q"].accepted = {51, 5040};  // 50 of them in an earlier run
  ledgers["q"].waiting = {1, 40};
  QueueRoom room(100, {{"q", 1}}, ledgers);
  room.Submitted(40);
  EXPECT_FALSE(room.Has(21));
  room.Refresh(ledgers);
  EXPECT_FALSE(room.Has(21));
  EXPECT_EQ(room.ItemsInMemory(), 1);
  ledgers["q"].accepted += {1, 40};
  ledgers["q"].waiting += {1, 40};
  room.Refresh(ledgers);
  EXPECT_FALSE(room.Has(21));
  EXPECT_TRUE(room.Has(20));
  EXPECT_EQ(room.ItemsInMemory(), 0);
  ledgers["q"].Leave(&QueueLedger::delivered, {1, 40});
  room.Refresh(ledgers);
  EXPECT_TRUE(room.Has(60));
  EXPECT_FALSE(room.Has(61));
}

TEST(QueueRoom, FullestQueueAndDoubledRowsDecide) {
  Ledgers ledgers;
  ledgers["a"].waiting = {1, 90};
  const QueueRoom room(100, {{"a", 1}, {"b", 3}}, ledgers);
  EXPECT_TRUE(room.Has(10));
  EXPECT_FALSE(room.Has(11));
  EXPECT_TRUE(room.CanEverFit(33));
  EXPECT_FALSE(room.CanEverFit(34));
}

TEST(Text, JsonStringsAndDurations) {
  EXPECT_EQ(JsonString("a\"\\\n\x01é\xff"), "\"a\\\"\\\\\\u000a\\u0001é\xef\xbf\xbd\"");
  EXPECT_EQ(Duration(999), "999 ms");
  EXPECT_EQ(Duration(1500), "1.5 s");
  EXPECT_EQ(Duration(61'000), "1 min 1 s");
  EXPECT_EQ(Duration(7'260'000), "2 h 1 min");
  EXPECT_EQ(Duration(90'000'000), "1 d 1 h");
}

}  // namespace
}  // namespace veld_report::app
