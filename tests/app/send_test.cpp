// veldrep send where it needs more than a transcript: many records, signals, and a look from beside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "tests/app/veldrep.h"
#include "tests/common/files.h"
#include "tests/common/waiting.h"

namespace veld_report::app_test {
namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::StartsWith;
using tests::Eventually;
using tests::Program;
using tests::ProgramResult;
using tests::ReadFile;

std::vector<std::string> Records(int count) {
  std::vector<std::string> records;
  for (int i = 0; i < count; ++i) {
    records.push_back("{\"id\":" + std::to_string(i) + R"(,"text":"Grüße \u00e9 \"x\"","big":1.50e3})");
  }
  return records;
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& each : lines) text += each + "\n";
  return text;
}

class SendTest : public testing::Test {
 protected:
  std::vector<std::string> Send(const std::vector<std::string>& more) const {
    std::vector<std::string> arguments = {"send", "--store", store_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  ProgramResult Queues(const std::vector<std::string>& more) const {
    std::vector<std::string> arguments = {"queues", "--store", store_};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Veldrep(arguments);
  }
  std::vector<std::string> Stored() const { return tests::ReadLines(folder_ / "out"); }

  const tests::TemporaryFolder folder_;
  const std::string store_ = folder_ / "store";
  // A port on which nobody listens: the one that a server has just given back.
  const std::string deadUrl_ = [this] { return Server({"--out", folder_ / "dead"}).Url(); }() + "/v1";
};

TEST_F(SendTest, FileArrivesRecordForRecordSigned) {
  ASSERT_EQ(Veldrep({"keygen", folder_ / "k"}).exitCode, 0);
  const Server server({"--out", folder_ / "out", "--key", folder_ / "k.pub.pem"});
  const auto records = Records(1000);
  tests::WriteFile(folder_ / "in", Joined(records));
  const ProgramResult result =
      Veldrep(Send({"--url", server.Url() + "/v1", "--sign", folder_ / "k.key.pem", folder_ / "in"}));
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_THAT(result.output,
              StartsWith("submitted 1000, delivered 1000, refused lines 0, still waiting 0, "));
  EXPECT_THAT(Stored(), ElementsAreArray(records));
}

TEST_F(SendTest, InterruptedSenderKeepsWhatItHasTaken) {
  int waiting = 0;
  for (const int signal : {SIGINT, SIGTERM}) {
    const std::string trace = folder_ / "trace" + std::to_string(signal);
    Program sender(VeldrepArguments(Send({"--url", deadUrl_, "--trace", trace, "-"})));
    sender.Feed(Joined(Records(10)));
    ASSERT_TRUE(Eventually([&] { return ReadFile(trace).find("failed") != std::string::npos; }));
    sender.Signal(signal);
    EXPECT_EQ(sender.Wait(), 1);
    waiting += 10;
    EXPECT_THAT(sender.Output(), HasSubstr(", still waiting " + std::to_string(waiting) + ", "));
  }
  EXPECT_THAT(Queues({"--json"}).output, HasSubstr("\"items\":20,"));
}

TEST_F(SendTest, StoreIsLookedIntoBesideARunningSender) {
  Program sender(VeldrepArguments(Send({"--url", deadUrl_, "--wait", "0", "-"})));
  sender.Feed(Joined(Records(4)));
  ASSERT_TRUE(
      Eventually([&] { return Queues({"--json"}).output.find("\"items\":4,") != std::string::npos; }));
  EXPECT_EQ(Queues({"peek", deadUrl_}).output, Joined(Records(4)));
  for (const std::vector<std::string>& arguments : {Send({"--url", deadUrl_}),
                                                    {"queues", "--store", store_, "clear", deadUrl_},
                                                    {"queues", "--store", store_, "clear", "--all"},
                                                    {"store", "compact", "--store", store_}}) {
    const ProgramResult refused = Veldrep(arguments);
    EXPECT_EQ(refused.exitCode, 1) << testing::PrintToString(arguments);
    EXPECT_THAT(refused.errors, HasSubstr("in use by process"));
  }
  EXPECT_EQ(sender.Wait(), 0);
}

TEST_F(SendTest, LargeFileThroughASmallQueueDropsNothing) {
  const Server server({"--out", folder_ / "out"});
  const auto records = Records(2000);
  const ProgramResult result =
      Veldrep(Send({"--url", server.Url(), "--queue-limit", "8", "-"}), Joined(records));
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_THAT(Stored(), ElementsAreArray(records));
}

TEST_F(SendTest, FullQueueStopsTheReaderAndDropsNothing) {
  const ProgramResult result =
      Veldrep(Send({"--url", deadUrl_, "--queue-limit", "1", "--wait", "1", "-"}), Joined(Records(100)));
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("the queues had no room in time"));
  EXPECT_EQ(Queues({"peek", deadUrl_, "-n", "1"}).output, Joined(Records(1)));
}

}  // namespace
}  // namespace veld_report::app_test
