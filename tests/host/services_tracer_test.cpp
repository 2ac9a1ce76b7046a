// The tracer: levels, growth, whole lines from many threads, and a file that can't fill the disk.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <thread>

#include "host/base/trace_line.h"
#include "host/tracer/line_tracer.h"
#include "tests/host/temporary_folder.h"

namespace veld_report::host {
namespace {

class Tracer : public testing::Test {
 protected:
  zel::Ref<LineTracer> Make(std::uint32_t level) {
    return MakeObject<LineTracer>(LineTracerOptions{
        .level = level, .sink = [this](std::string_view line) { lines_.emplace_back(line); }});
  }
  static std::vector<std::string> LinesOf(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  std::vector<std::string> lines_;
  tests::TemporaryFolder folder_;
};

TEST_F(Tracer, LineCarriesUtcTimeAndLevelAndOnlyItsLength) {
  auto tracer = Make(300);
  char* buffer = nullptr;
  ASSERT_EQ(tracer->AcquireBuffer(300, &buffer, 512), 0);
  std::memcpy(buffer, "veld_rep\tline\nbreak\x01 and more", 29);
  EXPECT_EQ(tracer->CommitBuffer(buffer, 20), 0);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_THAT(lines_[0],
              testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z 300 "
                                    "veld_rep\tline\\\\x0abreak\\\\x01"));
}

TEST_F(Tracer, LevelThatIsOffStoresNothing) {
  auto tracer = Make(300);
  char untouched = 'x';
  char* buffer = &untouched;
  EXPECT_NE(tracer->AcquireBuffer(700, &buffer, 512), 0);
  EXPECT_EQ(buffer, &untouched);
  tracer->SetLevel(700);
  TraceLine(tracer.Get(), 700, "wanted");
  tracer->SetLevel(0);
  TraceLine(tracer.Get(), 300, "unwanted");
  EXPECT_THAT(lines_, testing::ElementsAre(testing::EndsWith(" 700 wanted")));
}

TEST_F(Tracer, GrowthKeepsContentAndLevelAndItsFailureKeepsTheBuffer) {
  auto tracer = Make(700);
  char* buffer = nullptr;
  ASSERT_EQ(tracer->AcquireBuffer(700, &buffer, 512), 0);
  std::string text(512, 'a');
  std::memcpy(buffer, text.data(), text.size());
  for (std::uint64_t size = 1024; size <= 65536; size *= 2) {
    ASSERT_EQ(tracer->AcquireBuffer(zel::ITracer::growLevel, &buffer, size), 0);
    std::memset(buffer + text.size(), 'b', size - text.size());
    text.resize(size, 'b');
  }
  EXPECT_NE(tracer->AcquireBuffer(zel::ITracer::growLevel, &buffer, UINT64_MAX - 8), 0);
  EXPECT_EQ(tracer->CommitBuffer(buffer, text.size()), 0);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_TRUE(lines_[0].ends_with(" 700 " + text));
}

TEST_F(Tracer, SinkThatThrowsCostsItsLineOnly) {
  auto tracer = MakeObject<LineTracer>(
      LineTracerOptions{.sink = [](std::string_view) { throw std::runtime_error("full"); }});
  TraceLine(tracer.Get(), 300, "lost");
  EXPECT_EQ(tracer->DroppedLines(), 1u);
}

TEST_F(Tracer, ConcurrentWritersNeverMixLinesAndRotationLosesNone) {
  const std::string path = (folder_.Path() / "trace").string();
  constexpr int threadCount = 4, lineCount = 200;
  {
    auto tracer = MakeObject<LineTracer>(LineTracerOptions{.path = path, .level = 700, .limitBytes = 150000});
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < lineCount; ++i) {
          const auto padding = static_cast<std::size_t>(i % 7) * 40;
          TraceLine(tracer.Get(), 700, std::to_string(t * lineCount + i) + std::string(padding, '.') + "!");
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(tracer->DroppedLines(), 0u);
  }
  EXPECT_LE(std::filesystem::file_size(path), 150000u);
  std::vector<std::string> lines = LinesOf(path + ".1");  // 800 lines of 160 bytes: more than one file
  for (std::string& line : LinesOf(path)) lines.push_back(line);
  std::set<int> seen;
  for (const std::string& line : lines) {
    ASSERT_THAT(line, testing::MatchesRegex("[-0-9T:.]+Z 700 [0-9]+\\.*!"));
    seen.insert(std::stoi(line.substr(line.find(" 700 ") + 5)));
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(threadCount * lineCount));
}

TEST_F(Tracer, FileIsTheOwnersAloneAndNeverOutgrowsItsLimit) {
  const std::string path = (folder_.Path() / "trace").string();
  auto tracer = MakeObject<LineTracer>(LineTracerOptions{.path = path, .limitBytes = 1000});
  for (int i = 0; i < 100; ++i) TraceLine(tracer.Get(), 300, std::string(100, 'x'));
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_LE(std::filesystem::file_size(path), 1000u);
  EXPECT_LE(std::filesystem::file_size(path + ".1"), 1000u);
  // Nothing to move the full file to: it is emptied rather than left to grow.
  std::filesystem::remove(path + ".1");
  std::filesystem::create_directories(path + ".1/in the way");
  for (int i = 0; i < 100; ++i) TraceLine(tracer.Get(), 300, std::string(100, 'x'));
  EXPECT_LE(std::filesystem::file_size(path), 1000u);
}

TEST_F(Tracer, FileThatCannotBeOpenedIsNamed) {
  const std::string path = (folder_.Path() / "no such folder/trace").string();
  try {
    MakeObject<LineTracer>(LineTracerOptions{.path = path});
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr(path));
  }
}

}  // namespace
}  // namespace veld_report::host
