// A disk that has no room when an application starts for the first time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/common/small_disk.h"
#include "tests/host/reporter_test_tools.h"

namespace veld_report {
namespace {

class FullDisk : public ReporterTest {};

TEST_F(FullDisk, FirstStartFailsOrEveryRecordIsInTheLedger) {
  constexpr int records = 101;
  int opened = 0, refused = 0;
  const int freeKb[] = {0, 8, 32, 64, 96, 128, 256, 512};
  for (const int free : freeKb) {
    for (const bool roomComesBack : {false, true}) {
      SCOPED_TRACE(std::to_string(free) + (roomComesBack ? " KB free, more later" : " KB free"));
      const std::string name = "disk" + std::to_string(free) + (roomComesBack ? "-more" : "");
      const tests::SmallDisk disk(Path(name), "2m");
      if (!disk.IsMounted()) GTEST_SKIP() << "this user can't mount a small tmpfs";
      disk.FillButFor(static_cast<std::uintmax_t>(free) << 10);
      ReporterOptions options = Options({{"http://127.0.0.1:1"}}, name + "/store");
      options.sendingAllowed = false;
      std::string why;
      auto reporter = Reporter::TryOpen(options, &why);
      if (!reporter) {
        EXPECT_THAT(why, testing::HasSubstr("room"));
        ++refused;
        disk.MakeRoom();
        EXPECT_NE(Reporter::TryOpen(options, &why), nullptr) << why;
        continue;
      }
      ++opened;
      const std::string record = "{\"" + std::string(8000, 'r') + "\":1}";
      for (int i = 0; i < records; ++i) reporter->SendJson(record);
      static_cast<void>(reporter->FlushToStore(milliseconds(300)));
      if (roomComesBack) {
        disk.MakeRoom();
        EXPECT_TRUE(reporter->FlushToStore(seconds(20)));
      }
      const QueueLedger ledger = reporter->Stats().total;
      EXPECT_EQ(ledger.accepted.items, records);
      EXPECT_TRUE(ledger.IsBalanced());
      reporter.reset();  // without an exception
    }
  }
  EXPECT_GT(opened, 0);
  EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace veld_report
