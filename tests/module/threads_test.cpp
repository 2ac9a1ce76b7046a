// The sender under several threads: the last Release during a cycle, answers that come late, and load.

#include <atomic>
#include <chrono>
#include <semaphore>
#include <thread>

#include "tests/module/sender_test.h"

namespace veld_report::tests {
namespace {

class ThreadsTest : public SenderTest {
 protected:
  // Fires the timer on another thread and lets the sender go as soon as the nth call of `operation` is
  // reached; that call goes on once CancelTimer has been called, when the sender is stopping for certain.
  void StopInside(const char* operation, int nth) {
    std::binary_semaphore reached(0);
    std::binary_semaphore stopping(0);
    script().Do(
        operation,
        [&] {
          reached.release();
          EXPECT_TRUE(stopping.try_acquire_for(std::chrono::seconds(30)));
          return zel::sOk;
        },
        nth);
    script().Do("CancelTimer", [&] {
      stopping.release();
      return zel::sOk;
    });
    std::thread timer([this] { Fire(); });
    EXPECT_TRUE(reached.try_acquire_for(std::chrono::seconds(30)));
    End();
    timer.join();
  }
};

TEST_F(ThreadsTest, TheLastReleaseCancelsTheRequestThatACycleWaitsFor) {
  Start({.urls = {urlA, urlB}}, true);
  host.http->usual = HttpAnswer::Never();
  PutItems('a', {"{\"a\":1}"});
  PutItems('b', {"{\"a\":1}"});
  Nudge();
  std::binary_semaphore waiting(0);
  script().Do("Wait", [&] {
    waiting.release();
    return zel::sOk;
  });
  std::thread timer([this] { Fire(); });
  ASSERT_TRUE(waiting.try_acquire_for(std::chrono::seconds(30)));
  Send("{\"b\":2}");
  Events();
  End();
  // The cycle has left when the release returns, so all of this stands, whatever the other thread does now.
  EXPECT_EQ(module.canUnload(), zel::sOk);
  const Strings events = Events({"Cancel", "OnRequest", "ReturnItem", "Push", "ArmTimer", "MakeRequest"});
  ASSERT_EQ(events.size(), 6u) << "no timer and no other request";
  EXPECT_EQ(events[0], "Cancel");
  // CancelTimer comes while the cycle ends.
  EXPECT_THAT(Strings(events.begin() + 1, events.begin() + 4),
              testing::UnorderedElementsAre("CancelTimer",
                                            testing::StartsWith("OnRequestFinished VeldRep -2147483567"),
                                            testing::StartsWith("ReturnItem")));
  EXPECT_THAT(Strings(events.begin() + 4, events.end()),
              ElementsAre("Push 0a {\"b\":2}", "Push 0b {\"b\":2}"))
      << "the last flush";
  EXPECT_THAT(Lines(), testing::Not(testing::Contains(testing::StartsWith(Line("Not all data")))));
  timer.join();
}

TEST_F(ThreadsTest, AStopEndsTheWalkAtItsNextCheck) {
  struct Row {
    const char* what;
    std::uint32_t packetLimit;
    const char* operation;
    int nth;
    std::size_t requests;
    Strings left;
  };
  const Strings all = {"1", "2", "3"};
  // clang-format off
  const Row rows[] = {
      {"before a full packet goes out", 2, "Read", 2, 0, all},
      {"before the shorter packet, which goes out", 9, "Read", 4, 1, {}},
      {"in a request", 2, "MakeRequestAsync", 1, 2, {}},
      {"before the list is made", 2, "CreateQueueManager", 1, 0, all},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    Start({.urls = {urlA, urlB}, .packetLimit = row.packetLimit}, true);
    PutItems('a', all);
    // The same queue twice, so that the walk has a queue left whatever the order.
    host.queues->store.extraNames = {QueueName('a')};
    Nudge();
    Lines();
    Events();
    StopInside(row.operation, row.nth);
    EXPECT_EQ(host.http->TakeSent().size(), row.requests);
    EXPECT_THAT(host.queues->Items(QueueName('a')), ElementsAreArray(row.left));
    EXPECT_LE(Events({"CreateAckConsumer"}).size(), 1u) << "no other queue is visited";
    const Strings lines = Lines();
    EXPECT_THAT(lines, testing::Not(testing::Contains(testing::StartsWith(Line("Threre")))));
    EXPECT_THAT(lines, testing::Not(testing::Contains(testing::StartsWith(Line("Not all")))));
    EndRow();
  }
}

// A submission and new settings on another thread get through while the host is inside any of these.
TEST_F(ThreadsTest, NoCallToTheHostHoldsSubmissionsUp) {
  for (const char* operation :
       {"Serialize", "Flush", "CreateCalculator", "SetCertificates", "CreateQueueManager", "EnumerateQueues",
        "RemoveQueue", "CreateProducer", "Push", "IsBackgroundDisabled", "CreateAckConsumer", "Read", "Sign",
        "MakeRequestAsync", "Wait", "Ack", "OnRequestFinished", "ReturnItem"}) {
    SCOPED_TRACE(operation);
    PutItems('f', {"goes"});
    Start();
    host.http->Answer(HttpAnswer::Status(200));
    host.http->Answer(HttpAnswer::Status(500));
    std::thread other;
    std::binary_semaphore through(0);
    script().Do(operation, [&] {
      other = std::thread([&] {
        EXPECT_EQ(Send("{}"), zel::sOk);
        EXPECT_EQ(Set({}), zel::sOk);
        through.release();
      });
      EXPECT_TRUE(through.try_acquire_for(std::chrono::seconds(20))) << "it is kept waiting by a lock";
      return zel::sOk;
    });
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Send("{}"), zel::sOk);
    EXPECT_EQ(Set({}), zel::sOk);
    Fire();
    ASSERT_TRUE(other.joinable()) << "never called";
    other.join();
    EndRow();
  }
}

TEST_F(ThreadsTest, AnAnswerMayComeWhenTheSenderIsGone) {
  for (const ResultCode waitResult : {static_cast<int>(zel::eOperationTimeout), 0}) {
    for (const std::uint16_t status : std::initializer_list<std::uint16_t>{200, 503}) {
      Start({}, true);
      PutItems('a', {"{\"a\":1}", "{\"a\":2}", "{\"a\":3}"});
      host.http->Answer(HttpAnswer::Late(waitResult));
      Cycle();
      EXPECT_EQ(Lines().back(), NotAllLine(14, 0));
      End();
      EXPECT_EQ(module.canUnload(), zel::sFalse) << "the callback lives";
      Events();
      Lines();
      std::thread client([&] { host.http->Complete(status); });
      client.join();
      const std::string did = status == 200 ? "Ack " : "ReturnItem ";
      EXPECT_THAT(Events({"Ack", "Return"}), ElementsAre(did + "1", did + "2"));
      EXPECT_EQ(Lines().size(), 1u);
      EXPECT_EQ(module.canUnload(), zel::sOk);
      EXPECT_EQ(host.queues->Items(QueueName('a')).size(), status == 200 ? 1u : 3u);
      host.queues->Clear();
    }
  }
}

TEST_F(ThreadsTest, OfManyReleasesExactlyOneIsTheLast) {
  for (int round = 0; round < 50; ++round) {
    Start();
    Send("{}");
    std::atomic<bool> go = false;
    std::atomic<int> last = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&, own = zel::Ref<IVeldReportSender>(sender)]() mutable {
        while (!go) std::this_thread::yield();
        last += own.Detach()->Release() == 0;
      });
    }
    End();
    go = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(last, 1);
    EXPECT_THAT(Events({"CancelTimer"}), ElementsAre("CancelTimer"));
    host.timer->ForgetCancelled();
    host.queues->Clear();
  }
}

TEST_F(ThreadsTest, SubmissionsDuringCyclesAndSettings) {
  constexpr int threadCount = 8;
  constexpr int submissions = 200;
  const Plan plans[] = {{.urls = {urlA, urlB}, .packetLimit = 7, .queueLimit = 1000},
                        {.urls = {urlB, urlA}, .packetLimit = 3, .queueLimit = 2000}};
  Start(plans[0]);
  host.http->usual = HttpAnswer::Status(200, HttpAnswer::When::onThread);
  for (int i = 0; i < 40; ++i) host.http->Answer(HttpAnswer::Status(500, HttpAnswer::When::onThread));
  std::atomic<bool> done = false;
  std::thread timer([&] {
    while (!done) {
      if (!host.timer->Fire()) std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (int i = 0; i < threadCount; ++i) {
    threads.emplace_back([&, i] {
      for (int n = 0; n < submissions; ++n) {
        EXPECT_EQ(Send("{\"n\":" + std::to_string(n) + "}"), zel::sOk);
        if (n % 20 != i) continue;
        EXPECT_EQ(Set(plans[n / 20 % 2]), zel::sOk);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  done = true;
  timer.join();
  End();
  host.http->JoinThreads();
  int pushed = 0;
  int acknowledged = 0;
  for (const std::string& event : Events({"Push", "Ack"})) ++(event[0] == 'P' ? pushed : acknowledged);
  EXPECT_EQ(pushed, 2 * threadCount * submissions) << "one a row, by a cycle or by the last flush";
  const auto left = host.queues->Items(QueueName('a')).size() + host.queues->Items(QueueName('b')).size();
  EXPECT_EQ(acknowledged + static_cast<int>(left), pushed);
}

}  // namespace
}  // namespace veld_report::tests
