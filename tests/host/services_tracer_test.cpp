// The tracer: levels, growth, whole lines from many threads, and a file that can't fill the disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "host/base/write_trace.h"
#include "host/services/line_tracer.h"
#include "tests/common/temporary_folder.h"

namespace veld_report::host {
namespace {

class Tracer : public testing::Test {
 protected:
  std::vector<std::string> lines_;
  const tests::TemporaryFolder folder_;
  const std::string path_ = (folder_.Path() / "trace").string();
  const zel::Ref<LineTracer> tracer_ = MakeObject<LineTracer>(
      LineTracerOptions{.level = 700, .sink = [this](std::string_view line) { lines_.emplace_back(line); }});
};

TEST_F(Tracer, LineCarriesUtcTimeAndLevelAndOnlyItsLength) {
  char* buffer = nullptr;
  ASSERT_EQ(tracer_->AcquireBuffer(300, &buffer, 512), 0);
  std::memcpy(buffer, "veld_rep\tline\nbreak\x01 and more", 29);
  EXPECT_EQ(tracer_->CommitBuffer(buffer, 20), 0);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_THAT(lines_[0],
              testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z 300 "
                                    "veld_rep\tline\\\\x0abreak\\\\x01"));
}

TEST_F(Tracer, LevelThatIsOffStoresNothing) {
  tracer_->SetLevel(300);
  char untouched = 'x';
  char* buffer = &untouched;
  EXPECT_NE(tracer_->AcquireBuffer(700, &buffer, 512), 0);
  EXPECT_EQ(buffer, &untouched);
  tracer_->SetLevel(0);
  WriteTrace(tracer_.Get(), 300, "unwanted");
  EXPECT_TRUE(lines_.empty());
}

TEST_F(Tracer, GrowthKeepsContentAndFailedGrowthTheBuffer) {
  char* buffer = nullptr;
  ASSERT_EQ(tracer_->AcquireBuffer(700, &buffer, 512), 0);
  std::string text(512, 'a');
  std::memcpy(buffer, text.data(), text.size());
  for (std::uint64_t size = 1024; size <= 65536; size *= 2) {
    ASSERT_EQ(tracer_->AcquireBuffer(zel::ITracer::growLevel, &buffer, size), 0);
    std::memset(buffer + text.size(), 'b', size - text.size());
    text.resize(size, 'b');
  }
  EXPECT_NE(tracer_->AcquireBuffer(zel::ITracer::growLevel, &buffer, UINT64_MAX - 8), 0);
  EXPECT_EQ(tracer_->CommitBuffer(buffer, text.size()), 0);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_TRUE(lines_[0].ends_with(" 700 " + text));
}

TEST_F(Tracer, ConcurrentWritersNeverMixLinesAndRotationLosesNone) {
  std::vector<std::thread> threads;
  {
    const auto tracer =
        MakeObject<LineTracer>(LineTracerOptions{.path = path_, .level = 700, .limitBytes = 100000});
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 200; ++i) {
          const std::string padding(static_cast<std::size_t>(i % 7) * 40, '.');
          WriteTrace(tracer.Get(), 700, std::to_string(t * 200 + i) + padding + "!");
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(tracer->DroppedLines(), 0u);
  }
  std::set<int> seen;
  for (const std::string& path : {path_ + ".1", path_}) {  // 800 lines of 157 bytes on average
    EXPECT_LE(std::filesystem::file_size(path), 100000u);
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
      ASSERT_THAT(line, testing::MatchesRegex("[-0-9T:.]+Z 700 [0-9]+\\.*!"));
      seen.insert(std::stoi(line.substr(line.find(" 700 ") + 5)));
    }
  }
  EXPECT_EQ(seen.size(), 800u);
}

TEST_F(Tracer, FileIsTheOwnersAloneAndNeverOutgrowsItsLimit) {
  const auto tracer = MakeObject<LineTracer>(LineTracerOptions{.path = path_, .limitBytes = 1000});
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 100; ++i) WriteTrace(tracer.Get(), 300, std::string(100, 'x'));
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_LE(status.st_size, 1000);
    // Nothing to move the full file to: it is emptied rather than left to grow.
    std::filesystem::remove_all(path_ + ".1");
    std::filesystem::create_directories(path_ + ".1/in the way");
  }
}

}  // namespace
}  // namespace veld_report::host
