// What send is made of, without a module.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "apps/veldrep/line_reader.h"
#include "apps/veldrep/pacer.h"
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

TEST(LineReader, LinesComeOutWholeWhateverTheBlocksAre) {
  const std::string large(300'000, 'x');
  const struct {
    std::string text;
    std::vector<std::string> lines;
  } cases[] = {
      {"", {}},
      {"\n", {""}},
      {"a\nb\n", {"a", "b"}},
      {"a\n\nb", {"a", "", "b"}},
      {large + "\n" + large + "\nend", {large, large, "end"}},
  };
  for (const auto& each : cases) EXPECT_EQ(ReadAll(each.text, 1'000'000), each.lines);
}

TEST(LineReader, LineOverTheLimitIsSkippedAndCounted) {
  using Lines = std::vector<std::string>;
  EXPECT_EQ(ReadAll("12345\n123456\n1\n", 5), (Lines{"12345", "<too long>", "1"}));
  EXPECT_EQ(ReadAll("a\n" + std::string(2'000'000, 'x') + "\nb\n", 5), (Lines{"a", "<too long>", "b"}));
  EXPECT_EQ(ReadAll("a\n" + std::string(2'000'000, 'x'), 5), (Lines{"a", "<too long>"}));
}

class PacerTest : public testing::Test {
 protected:
  // A push of the module: the item leaves the memory for the queue.
  void Push(const std::string& queue, std::int64_t bytes) {
    ledgers_[queue].accepted += {1, bytes};
    ledgers_[queue].waiting += {1, bytes};
  }
  void Deliver(const std::string& queue, std::int64_t bytes) {
    ledgers_[queue].waiting += {-1, -bytes};
    ledgers_[queue].delivered += {1, bytes};
  }

  Ledgers ledgers_;
};

TEST_F(PacerTest, MemoryIsBoundedUntilTheQueuesHaveTheItems) {
  ledgers_["q"].accepted = {50, 5000};  // of an earlier run
  Pacer pacer({.memoryItems = 3, .memoryBytes = 100, .queueBytes = 1000}, {{"q", 1}}, ledgers_);
  EXPECT_FALSE(pacer.MaySubmit(101));
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(pacer.MaySubmit(10));
    pacer.Submitted(10);
  }
  EXPECT_FALSE(pacer.MaySubmit(10));
  EXPECT_TRUE(pacer.HasRoom(10));
  pacer.Refresh(ledgers_);
  EXPECT_FALSE(pacer.MaySubmit(10));
  EXPECT_EQ(pacer.ItemsInMemory(), 3);
  Push("q", 10);
  pacer.Refresh(ledgers_);
  EXPECT_TRUE(pacer.MaySubmit(10));
  EXPECT_EQ(pacer.ItemsInMemory(), 2);
}

TEST_F(PacerTest, QueueNeverHasToDropItsOwnItems) {
  ledgers_["q"].waiting = {1, 40};
  Pacer pacer({.memoryItems = 100, .memoryBytes = 1000, .queueBytes = 100}, {{"q", 1}}, ledgers_);
  pacer.Submitted(40);
  EXPECT_FALSE(pacer.MaySubmit(21));
  EXPECT_FALSE(pacer.HasRoom(21));
  Push("q", 40);
  pacer.Refresh(ledgers_);
  EXPECT_FALSE(pacer.MaySubmit(21));
  EXPECT_TRUE(pacer.MaySubmit(20));
  Deliver("q", 40);
  pacer.Refresh(ledgers_);
  EXPECT_TRUE(pacer.MaySubmit(60));
  EXPECT_FALSE(pacer.MaySubmit(61));
}

TEST_F(PacerTest, FullestQueueAndDoubledRowsDecide) {
  ledgers_["a"].waiting = {1, 90};
  Pacer pacer({.memoryItems = 100, .memoryBytes = 1000, .queueBytes = 100}, {{"a", 1}, {"b", 3}}, ledgers_);
  EXPECT_TRUE(pacer.MaySubmit(10));
  EXPECT_FALSE(pacer.MaySubmit(11));
  EXPECT_TRUE(pacer.CanEverFit(33));
  EXPECT_FALSE(pacer.CanEverFit(34));
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
