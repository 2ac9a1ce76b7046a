// veldrep send and queues against veldrep serve, end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <memory>

#include "tests/app/veldrep.h"
#include "tests/common/files.h"
#include "tests/common/waiting.h"

namespace veld_report::app_test {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;
using tests::Eventually;
using tests::Lines;
using tests::Program;
using tests::ProgramResult;
using tests::ReadFile;
using tests::TemporaryFolder;
using tests::WriteFile;

std::vector<std::string> Records(int first, int count) {
  std::vector<std::string> records;
  for (int i = first; i < first + count; ++i) {
    records.push_back("{\"id\":" + std::to_string(i) +
                      ",\"text\":\"Grüße \\u00e9 \\\"x\\\"\",\"big\":1.50e3}");
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
    std::vector<std::string> arguments = {"send", "--store", folder_ / "store"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }
  std::vector<std::string> Stored(std::string_view name = "out") const {
    return Lines(ReadFile(folder_ / name));
  }

  const TemporaryFolder folder_;
  // A port on which nobody listens: the one that a server has just given back.
  const std::string deadUrl_ = [this] { return Server(folder_ / "dead").Url(); }() + "/v1";
};

TEST_F(SendTest, FileArrivesRecordForRecordSigned) {
  ASSERT_EQ(Veldrep({"keygen", folder_ / "k"}).exitCode, 0);
  const Server server(folder_ / "out", {"--key", folder_ / "k.pub.pem"});
  const auto records = Records(0, 1000);
  WriteFile(folder_ / "in", Joined(records));
  const ProgramResult result =
      Veldrep(Send({"--url", server.Url() + "/v1", "--sign", folder_ / "k.key.pem", folder_ / "in"}));
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_THAT(result.output,
              StartsWith("submitted 1000, delivered 1000, refused lines 0, still waiting 0, "));
  EXPECT_EQ(result.errors, "");
  EXPECT_THAT(Stored(), testing::ElementsAreArray(records));
}

TEST_F(SendTest, EachConsumerGetsWhatIsMeantForIt) {
  const Server first(folder_ / "first"), second(folder_ / "second");
  const std::vector<std::string> targets = {"--url", first.Url(),  "--consumer", "a",
                                            "--url", second.Url(), "--consumer", "b"};
  const auto send = [&](const std::string& to, const std::string& input) {
    std::vector<std::string> arguments = Send(targets);
    if (!to.empty()) arguments.insert(arguments.end(), {"--to", to});
    arguments.push_back("-");
    return Veldrep(arguments, input);
  };
  EXPECT_EQ(send("a", "{\"for\":\"a\"}\n").exitCode, 0);
  EXPECT_EQ(send("b", "{\"for\":\"b\"}\n").exitCode, 0);
  EXPECT_THAT(send("", "{\"for\":\"all\"}").output, HasSubstr("submitted 1, delivered 2,"));
  EXPECT_THAT(Stored("first"), testing::ElementsAre("{\"for\":\"a\"}", "{\"for\":\"all\"}"));
  EXPECT_THAT(Stored("second"), testing::ElementsAre("{\"for\":\"b\"}", "{\"for\":\"all\"}"));
  EXPECT_EQ(send("c", "").exitCode, 2);
}

TEST_F(SendTest, RefusedLinesAreNamedAndTheRestGoesOn) {
  const Server server(folder_ / "out");
  const std::string input =
      "{\"a\":1}\n\n[1]\n{\"a\":}\n  {\"b\":2} \r\n\"text\"\n{\"c\":\"\xff\"}\n{\"d\":4}";
  const ProgramResult result = Veldrep(Send({"--url", server.Url(), "-"}), input);
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_THAT(result.output, StartsWith("submitted 3, delivered 3, refused lines 4, still waiting 0, "));
  const auto errors = Lines(result.errors);
  ASSERT_EQ(errors.size(), 4U) << result.errors;
  for (std::size_t i = 0; i < 4; ++i) {
    const std::string number = std::to_string(std::vector{3, 4, 6, 7}[i]);
    EXPECT_THAT(errors[i], StartsWith("veldrep: - line " + number + ": refused: it isn't a JSON object"));
  }
  EXPECT_THAT(Stored(), testing::ElementsAre("{\"a\":1}", "{\"b\":2}", "{\"d\":4}"));
}

TEST_F(SendTest, WhatFindsNoServerWaitsAndGoesOutLater) {
  const auto records = Records(0, 20);
  const std::string trace = folder_ / "trace";
  Program offline(VeldrepArguments(Send({"--url", deadUrl_, "--trace", trace, "-"})));
  offline.Feed(Joined(records));
  offline.EndInput();
  ASSERT_TRUE(Eventually([&] { return ReadFile(trace).find("failed") != std::string::npos; }));
  offline.Signal(SIGTERM);
  EXPECT_EQ(offline.Wait(), 1);
  EXPECT_THAT(offline.Output(), StartsWith("submitted 20, delivered 0, refused lines 0, still waiting 20, "));
  EXPECT_THAT(offline.Errors(), HasSubstr("requests failed, the last one: " + deadUrl_ + ": 0x800000"));

  const std::string store = folder_ / "store";
  const ProgramResult list = Veldrep({"queues", "--store", store, "--json"});
  EXPECT_THAT(list.output,
              HasSubstr("\"items\":20,\"bytes\":" + std::to_string(Joined(records).size() - 20)));
  const ProgramResult peek = Veldrep({"queues", "--store", store, "peek", deadUrl_, "-n", "3"});
  EXPECT_EQ(peek.output, Joined(Records(0, 3)));
  EXPECT_EQ(Veldrep({"queues", "--store", store, "peek", "http://127.0.0.1/other"}).exitCode, 1);

  // Another url alone would make the module remove the queue of this one.
  const ProgramResult other = Veldrep(Send({"--url", "http://127.0.0.1:9/other"}));
  EXPECT_EQ(other.exitCode, 1);
  EXPECT_THAT(other.errors, HasSubstr("20 items wait for a url that isn't given"));

  const int port = std::atoi(deadUrl_.c_str() + deadUrl_.rfind(':') + 1);
  const Server server(folder_ / "out", {}, port);
  const ProgramResult later = Veldrep(Send({"--url", deadUrl_}));
  EXPECT_EQ(later.exitCode, 0);
  EXPECT_THAT(later.output, StartsWith("submitted 0, delivered 20, refused lines 0, still waiting 0, "));
  EXPECT_THAT(Stored(), testing::ElementsAreArray(records));
}

TEST_F(SendTest, ClearedQueueIsGone) {
  ASSERT_EQ(Veldrep(Send({"--url", deadUrl_, "--wait", "0", "-"}), Joined(Records(0, 5))).exitCode, 0);
  const std::string store = folder_ / "store";
  EXPECT_THAT(Veldrep({"queues", "--store", store, "clear", deadUrl_}).output, StartsWith("removed 5 items"));
  EXPECT_EQ(Veldrep({"queues", "--store", store, "list", "--json"}).output, "[]\n");
  EXPECT_THAT(Veldrep({"queues", "--store", store, "clear", deadUrl_}).errors,
              HasSubstr("has no such queue"));
}

TEST_F(SendTest, StoreIsLookedIntoBesideARunningSender) {
  Program sender(VeldrepArguments(Send({"--url", deadUrl_, "--wait", "0", "-"})));
  sender.Feed(Joined(Records(0, 4)));
  const std::string store = folder_ / "store";
  ASSERT_TRUE(Eventually([&] {
    return Veldrep({"queues", "--store", store, "--json"}).output.find("\"items\":4,") != std::string::npos;
  }));
  EXPECT_EQ(Veldrep({"queues", "--store", store, "peek", deadUrl_}).output, Joined(Records(0, 4)));
  for (const std::vector<std::string>& arguments : {Send({"--url", deadUrl_}),
                                                    {"queues", "--store", store, "clear", deadUrl_},
                                                    {"queues", "--store", store, "clear", "--all"},
                                                    {"store", "compact", "--store", store}}) {
    const ProgramResult refused = Veldrep(arguments);
    EXPECT_EQ(refused.exitCode, 1) << testing::PrintToString(arguments);
    EXPECT_THAT(refused.errors, StartsWith("veldrep: "));
  }
  EXPECT_EQ(sender.Wait(), 0);
}

TEST_F(SendTest, ClearAllLeavesNothingReadable) {
  ASSERT_EQ(Veldrep(Send({"--url", deadUrl_, "--wait", "0", "-"}), Joined(Records(0, 50))).exitCode, 0);
  const std::string store = folder_ / "store";
  const auto holdsText = [&] {
    for (const auto& each : std::filesystem::directory_iterator(store)) {
      if (ReadFile(each.path()).find("Grüße") != std::string::npos) return true;
    }
    return false;
  };
  ASSERT_TRUE(holdsText());
  EXPECT_THAT(Veldrep({"queues", "--store", store, "clear", "--all"}).output, StartsWith("removed 50 items"));
  EXPECT_FALSE(holdsText());
}

TEST_F(SendTest, DamagedStoreIsFoundAndSalvaged) {
  ASSERT_EQ(Veldrep(Send({"--url", deadUrl_, "--wait", "0", "-"}), Joined(Records(0, 2000))).exitCode, 0);
  const std::string store = folder_ / "store";
  const ProgramResult good = Veldrep({"store", "check", "--store", store});
  EXPECT_EQ(good.exitCode, 0) << good.errors;
  EXPECT_THAT(good.output, StartsWith("veld_rep: good, 2000 items of "));
  EXPECT_THAT(Veldrep({"store", "compact", "--store", store}).output, HasSubstr("bytes before"));

  std::string file = ReadFile(folder_ / "store/veld_rep.queue");
  std::fill_n(file.begin() + static_cast<std::ptrdiff_t>(file.size() / 2), 8192, '\x5a');
  WriteFile(folder_ / "store/veld_rep.queue", file);
  const ProgramResult damaged = Veldrep({"store", "check", "--store", store});
  EXPECT_EQ(damaged.exitCode, 1);
  EXPECT_THAT(damaged.output, HasSubstr("DAMAGED"));
  EXPECT_THAT(damaged.errors, HasSubstr("veldrep store salvage"));
  EXPECT_EQ(Veldrep({"store", "salvage", "--store", store}).exitCode, 0);
  EXPECT_EQ(Veldrep({"store", "check", "--store", store}).exitCode, 0);
  EXPECT_THAT(Veldrep({"queues", "--store", store, "peek", deadUrl_, "-n", "1"}).output,
              Joined(Records(0, 1)));
}

TEST_F(SendTest, ServerKilledInBetweenLosesNothing) {
  auto server = std::make_unique<Server>(folder_ / "out");
  const int port = server->Port();
  const auto records = Records(0, 3000);
  const auto half = records.begin() + 1500;
  Program sender(VeldrepArguments(Send({"--url", server->Url(), "--packet-limit", "20", "-"})));
  sender.Feed(Joined({records.begin(), half}));
  ASSERT_TRUE(Eventually([&] { return !Stored().empty(); }));
  server->Process().Signal(SIGKILL);
  server->Process().Wait();
  sender.Feed(Joined({half, records.end()}));
  server = std::make_unique<Server>(folder_ / "out", std::vector<std::string>{}, port);
  EXPECT_EQ(sender.Wait(), 0);
  EXPECT_THAT(sender.Output(),
              StartsWith("submitted 3000, delivered 3000, refused lines 0, still waiting 0, "));
  // A packet whose answer the kill has swallowed comes twice; everything comes once at least.
  std::vector<std::string> stored = Stored();
  std::sort(stored.begin(), stored.end());
  stored.erase(std::unique(stored.begin(), stored.end()), stored.end());
  EXPECT_THAT(stored, UnorderedElementsAreArray(records));
}

TEST_F(SendTest, LargeFileThroughASmallQueueDropsNothing) {
  const Server server(folder_ / "out");
  const auto records = Records(0, 2000);
  const ProgramResult result =
      Veldrep(Send({"--url", server.Url(), "--queue-limit", "8", "-"}), Joined(records));
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_THAT(Stored(), testing::ElementsAreArray(records));
}

TEST_F(SendTest, FullQueueStopsTheReaderInsteadOfDroppingItems) {
  const ProgramResult result =
      Veldrep(Send({"--url", deadUrl_, "--queue-limit", "1", "--wait", "1", "-"}), Joined(Records(0, 100)));
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.errors, HasSubstr("the queues had no room in time"));
  const ProgramResult peek = Veldrep({"queues", "--store", folder_ / "store", "peek", deadUrl_, "-n", "1"});
  EXPECT_EQ(peek.output, Joined(Records(0, 1)));
  const std::string large = "{\"x\":\"" + std::string(2000, 'x') + "\"}";
  const ProgramResult tooLarge =
      Veldrep(Send({"--url", deadUrl_, "--queue-limit", "1", "--wait", "0", "-"}), large);
  EXPECT_EQ(tooLarge.exitCode, 3);
  EXPECT_THAT(tooLarge.errors, HasSubstr("larger than --queue-limit"));
}

TEST_F(SendTest, InterruptedSenderKeepsWhatItHasTaken) {
  const std::string trace = folder_ / "trace";
  Program sender(VeldrepArguments(Send({"--url", deadUrl_, "--trace", trace, "-"})));
  sender.Feed(Joined(Records(0, 10)));
  ASSERT_TRUE(Eventually([&] { return ReadFile(trace).find("failed") != std::string::npos; }));
  sender.Signal(SIGINT);
  EXPECT_EQ(sender.Wait(), 1);
  EXPECT_THAT(sender.Output(), StartsWith("submitted 10, delivered 0, refused lines 0, still waiting 10, "));
  EXPECT_THAT(Veldrep({"queues", "--store", folder_ / "store", "--json"}).output, HasSubstr("\"items\":10,"));
}

TEST_F(SendTest, FailuresSayWhatIsWrong) {
  const struct {
    std::vector<std::string> arguments;
    int exitCode;
    const char* errors;
  } cases[] = {
      {Send({}), 2, "--url is required"},
      {Send({"--url", "ftp://x"}), 2, "expected http:// or https://"},
      {Send({"--url", "http://x", "--url", "http://x"}), 2, "given twice"},
      {Send({"--url", "http://x", "--consumer", "a", "--consumer", "b"}), 2, "--consumer"},
      {Send({"--url", "http://x", "--queue-limit", "4194304"}), 2, "--queue-limit"},
      {Send({"--url", deadUrl_, folder_ / "none"}), 1, "none: can't be opened"},
      {Send({"--url", deadUrl_, "--module", folder_ / "none.so"}), 1, "none.so"},
      {Send({"--url", deadUrl_, "--sign", folder_ / "none.pem"}), 1, "none.pem"},
  };
  for (const auto& each : cases) {
    const ProgramResult result = Veldrep(each.arguments);
    EXPECT_EQ(result.exitCode, each.exitCode) << result.errors;
    EXPECT_THAT(result.errors, StartsWith("veldrep: "));
    EXPECT_THAT(result.errors, HasSubstr(each.errors));
  }
}

}  // namespace
}  // namespace veld_report::app_test
