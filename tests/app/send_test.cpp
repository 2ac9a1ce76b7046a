// veldrep send while its input is open: signals, and a look from beside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <random>
#include <regex>

#include "tests/common/files.h"
#include "tests/common/small_disk.h"
#include "tests/common/veldrep.h"

namespace veld_report::app_test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tests::Arguments;
using tests::Eventually;
using tests::Program;
using tests::ProgramResult;
using tests::Veldrep;
using tests::With;

// Lines of JSON, with ids by which a server knows them again.
std::string Records(int count, const std::string& text = "") {
  std::string records;
  for (int i = 0; i < count; ++i)
    records += "{\"recordId\":\"" + std::to_string(i) + "\",\"text\":\"" + text + "\"}\n";
  return records;
}

// What a run that was stopped gives for --from-line; 0 if it wasn't.
std::uint64_t LineToGoOnWith(const std::string& errors) {
  std::smatch found;
  return std::regex_search(errors, found, std::regex("--from-line (\\d+)\n")) ? std::stoull(found[1]) : 0;
}

class SendTest : public testing::Test {
 protected:
  const tests::TemporaryFolder folder_;
  const std::string store_ = folder_ / "store";
  // A port on which nobody listens: the one that a server has just given back.
  const std::string deadUrl_ = tests::Server({"--out", folder_ / "dead"}).Url() + "/v1";
  const Arguments send_ = {"send", "--store", store_, "--url"};
  const Arguments queues_ = {"queues", "--store", store_};
};

TEST_F(SendTest, InterruptedSenderKeepsWhatItHasTaken) {
  int waiting = 0;
  for (const int signal : {SIGINT, SIGTERM}) {
    const std::string trace = folder_ / "trace" + std::to_string(signal);
    Program sender(With(With({VELDREP_PATH}, send_), {deadUrl_, "--trace", trace, "-"}));
    sender.Feed(Records(10));
    waiting += 10;
    // Both: what an earlier sender left fails before the new lines are read.
    ASSERT_TRUE(Eventually([&] {
      const std::string items = Veldrep(With(queues_, {"peek", deadUrl_, "-n", "100"})).output;
      return std::ranges::count(items, '\n') == waiting &&
             tests::ReadFile(trace).find("failed") != std::string::npos;
    }));
    sender.Signal(signal);
    EXPECT_EQ(sender.Wait(), 1);
    EXPECT_THAT(sender.Output(), HasSubstr(", still waiting " + std::to_string(waiting) + ", "));
  }
}

TEST_F(SendTest, StoreIsLookedIntoBesideARunningSender) {
  Program sender(With(With({VELDREP_PATH}, send_), {deadUrl_, "--wait", "0", "-"}));
  sender.Feed(Records(4));
  ASSERT_TRUE(Eventually([&] { return Veldrep(With(queues_, {"peek", deadUrl_})).output == Records(4); }));
  for (const Arguments& arguments :
       {With(send_, {deadUrl_}), With(queues_, {"clear", deadUrl_}), With(queues_, {"clear", "--all"}),
        Arguments{"store", "compact", "--store", store_}}) {
    const ProgramResult refused = Veldrep(arguments);
    EXPECT_EQ(refused.exitCode, 1) << testing::PrintToString(arguments);
    EXPECT_THAT(refused.errors, HasSubstr("in use by process"));
  }
  EXPECT_EQ(sender.Wait(), 0);
}

TEST_F(SendTest, ReadingWaitsForAFullDisk) {
  const std::string disk = folder_ / "disk", input = folder_ / "in", out = folder_ / "out";
  const tests::SmallDisk small(disk, "12m");
  if (!small.IsMounted()) GTEST_SKIP() << "no small disk can be mounted here";
  tests::WriteFile(input, Records(50'000, std::string(400, 'x')));
  const Arguments send = {"send", "--store", disk + "/s", "--url", deadUrl_};
  const ProgramResult stopped = Veldrep(With(send, {"--wait", "1", input}));
  EXPECT_EQ(stopped.exitCode, 1);
  EXPECT_THAT(stopped.errors, HasSubstr("/s: the store can't be written ("));
  const std::uint64_t line = LineToGoOnWith(stopped.errors);
  const std::string stored = std::to_string(line - 1);
  EXPECT_THAT(stopped.output, StartsWith("submitted " + stored + ", delivered 0,")) << stopped.errors;
  EXPECT_THAT(stopped.output, HasSubstr("still waiting " + stored + ","));
  // What is delivered makes room, so the rest goes through the same disk.
  const tests::Server server({"--out", out, "--listen", deadUrl_.substr(7, deadUrl_.size() - 10)});
  const ProgramResult rest = Veldrep(With(send, {"--from-line", std::to_string(line), input}));
  EXPECT_EQ(rest.exitCode, 0);
  EXPECT_TRUE(tests::ReadFile(out) == tests::ReadFile(input)) << rest.output << rest.errors;
}

TEST_F(SendTest, SignalledSendersGoOnWhereTheyStopped) {
  const auto seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const std::string input = folder_ / "in", out = folder_ / "out", all = Records(40'000);
  tests::WriteFile(input, all);
  const tests::Server server({"--out", out});
  std::uint64_t line = 1;
  for (int round = 0; round < 20; ++round) {
    // The small queue keeps it from having read everything at once.
    Program sender(With(With({VELDREP_PATH}, send_), {server.Url() + "/v1", "--queue-limit", "32",
                                                      "--from-line", std::to_string(line), input}));
    const auto enough = std::min(all.size(), std::filesystem::file_size(out) + random() % (all.size() / 20));
    ASSERT_TRUE(Eventually([&] { return std::filesystem::file_size(out) >= enough; }));
    sender.Signal(std::array{SIGINT, SIGTERM, SIGHUP}[random() % 3]);
    // Before it notes signals, it has read nothing.
    if (sender.Wait() < 0) continue;
    const std::uint64_t next = LineToGoOnWith(sender.Errors());
    if (next == 0) {  // it had read everything before the signal came
      line = 40'001;
      break;
    }
    ASSERT_GE(next, line) << sender.Errors();
    line = next;
  }
  const ProgramResult rest =
      Veldrep(With(send_, {server.Url() + "/v1", "--from-line", std::to_string(line), input}));
  EXPECT_EQ(rest.exitCode, 0) << rest.errors;
  EXPECT_TRUE(tests::ReadFile(out) == all) << rest.output;
}

}  // namespace
}  // namespace veld_report::app_test
