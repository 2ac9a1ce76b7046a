// A store whose file is damaged at one place after another: what comes out of it, and what is counted.
#include <gmock/gmock.h>

#include "tests/host/queue_test_tools.h"

namespace veld_report::tests {
namespace {

class StoreDamageTest : public StoreTest {
 protected:
  TracedLines lines;
  static constexpr std::size_t each = 150, acknowledged = 10;
  static constexpr std::size_t firstPages = 3 * 4096;  // the schema, and the queues with their figures

  static std::string ItemText(const std::string& queue, std::size_t number) {
    return queue + Numbered(number) + std::string(number == 99 ? 70'000 : 300, '.');
  }
  void Fill() {
    Open();
    for (std::size_t i = 0; i < each; ++i) Push("a", ItemText("a", i)), Push("b", ItemText("b", i));
    const auto reader = Reader("a");
    for (const ReadItem& item : ReadAll(*reader, acknowledged)) reader->Ack(&item.token);
  }
  // Delivers everything. How many came out; what comes must have been put in, be in order, and come once.
  std::size_t Drain(const std::string& queue, std::size_t next) {
    std::size_t count = 0;
    const auto reader = Reader(queue);
    for (const ReadItem& item : ReadAll(*reader)) {
      while (next < each && ItemText(queue, next) != item.bytes) ++next;
      EXPECT_LT(next++, each) << item.bytes.substr(0, 20);
      EXPECT_EQ(reader->Ack(&item.token), zel::sOk);
      ++count;
    }
    return count;
  }
  void Try(const std::string& bytes, bool figuresAreIntact) {
    std::filesystem::remove_all(options.folder);
    std::filesystem::create_directory(options.folder);
    WriteFile(StorePath(), bytes);
    Open();
    for (const char* queue : {"a", "b"}) {
      const std::size_t before = figuresAreIntact && *queue == 'a' ? acknowledged : 0;
      const std::size_t count = Drain(queue, before);
      service->Commit();
      if (!figuresAreIntact) continue;
      EXPECT_EQ(count + static_cast<std::size_t>(Ledger(queue).damaged.items), each - before) << queue;
      EXPECT_EQ(Ledger(queue).waiting, ItemCount());
    }
    const Strings findings = Findings();
    EXPECT_TRUE(!figuresAreIntact || findings.empty()) << testing::PrintToString(findings);
  }
};

TEST_F(StoreDamageTest, EachItemComesOutWholeOrIsCounted) {
  options.tracer = lines.tracer;
  options.folder = folder / "store";
  std::filesystem::create_directory(options.folder);
  Fill();
  service.Reset();
  const std::string whole = ReadFile(StorePath());
  const auto step = static_cast<std::size_t>(FromEnvironment("VELD_DAMAGE_STEP", 2999));
  for (std::size_t at = 0; at < whole.size() && !HasFailure(); at += step) {
    SCOPED_TRACE("byte " + std::to_string(at) + " of " + std::to_string(whole.size()));
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x11);
    Try(damaged, at >= firstPages);
    if (at >= firstPages && at % 4 == 0) Try(whole.substr(0, at), true);
  }
}

}  // namespace
}  // namespace veld_report::tests
