// veldrep send while its input is open: signals, and a look from beside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>

#include "tests/common/files.h"
#include "tests/common/veldrep.h"

namespace veld_report::app_test {
namespace {

using testing::HasSubstr;
using tests::Arguments;
using tests::Eventually;
using tests::Program;
using tests::ProgramResult;
using tests::Veldrep;
using tests::With;

// Lines of JSON.
std::string Records(int count) {
  std::string records;
  for (int i = 0; i < count; ++i) records += "{\"id\":" + std::to_string(i) + "}\n";
  return records;
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

}  // namespace
}  // namespace veld_report::app_test
