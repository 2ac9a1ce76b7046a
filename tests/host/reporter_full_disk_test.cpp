// A disk that has no room when an application starts for the first time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>

#include "tests/host/reporter_test_tools.h"

namespace veld_report {
namespace {

// A small disk of its own for each case.
class SmallDisk {
 public:
  explicit SmallDisk(const std::string& folder) : folder_(folder) {
    std::filesystem::create_directory(folder_);
    isMounted_ = mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=2m") == 0;
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;
  ~SmallDisk() { EXPECT_TRUE(!isMounted_ || umount2(folder_.c_str(), MNT_DETACH) == 0); }

  bool IsMounted() const { return isMounted_; }
  void FillButFor(std::uintmax_t bytes) {
    const std::uintmax_t free = std::filesystem::space(folder_).available;
    std::ofstream(Ballast(), std::ios::binary) << std::string(free - bytes, 'b');
  }
  void MakeRoom() { std::filesystem::remove(Ballast()); }

 private:
  std::string Ballast() const { return folder_ + "/ballast"; }

  const std::string folder_;
  bool isMounted_ = false;
};

class FullDisk : public ReporterTest {};

TEST_F(FullDisk, FirstStartFailsOrEveryRecordIsInTheLedger) {
  constexpr int records = 101;
  int opened = 0, refused = 0;
  const int freeKb[] = {0, 8, 32, 64, 96, 128, 256, 512};
  for (const int free : freeKb) {
    for (const bool roomComesBack : {false, true}) {
      SCOPED_TRACE(std::to_string(free) + (roomComesBack ? " KB free, more later" : " KB free"));
      const std::string name = "disk" + std::to_string(free) + (roomComesBack ? "-more" : "");
      SmallDisk disk(Path(name));
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
      const std::string record = '"' + std::string(8000, 'r') + '"';
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
