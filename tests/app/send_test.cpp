// veldrep send where a transcript isn't enough: many records, signals, and a look from beside.
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
using tests::ReadFile;
using tests::Server;
using tests::Veldrep;
using tests::With;

// Lines of JSON.
std::string Records(int count) {
  std::string records;
  for (int i = 0; i < count; ++i)
    records += "{\"id\":" + std::to_string(i) + R"(,"text":"Grüße \u00e9 \"x\"","big":1.50e3})" + "\n";
  return records;
}

class SendTest : public testing::Test {
 protected:
  const tests::TemporaryFolder folder_;
  const std::string store_ = folder_ / "store";
  // A port on which nobody listens: the one that a server has just given back.
  const std::string deadUrl_ = Server({"--out", folder_ / "dead"}).Url() + "/v1";
  const Arguments send_ = {"send", "--store", store_, "--url"};
  const Arguments queues_ = {"queues", "--store", store_};
};

TEST_F(SendTest, RecordsArriveSignedAndInOrder) {
  ASSERT_EQ(Veldrep({"keygen", folder_ / "k"}).exitCode, 0);
  const Server server({"--out", folder_ / "out", "--key", folder_ / "k.pub.pem"});
  const std::string records = Records(2000);
  // The queue is much smaller than what goes through it.
  const ProgramResult result = Veldrep(
      With(send_, {server.Url(), "--sign", folder_ / "k.key.pem", "--queue-limit", "8", "-"}), records);
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_THAT(result.output,
              testing::StartsWith("submitted 2000, delivered 2000, refused lines 0, still waiting 0, "));
  EXPECT_EQ(ReadFile(folder_ / "out"), records);
}

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
             ReadFile(trace).find("failed") != std::string::npos;
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

TEST_F(SendTest, FullQueueStopsTheReaderAndDropsNothing) {
  const ProgramResult result =
      Veldrep(With(send_, {deadUrl_, "--queue-limit", "1", "--wait", "1", "-"}), Records(100));
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("the queues had no room in time"));
  EXPECT_EQ(Veldrep(With(queues_, {"peek", deadUrl_, "-n", "1"})).output, Records(1));
}

}  // namespace
}  // namespace veld_report::app_test
