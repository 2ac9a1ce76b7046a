// The sender under several threads: the last Release during a cycle, answers that come late, and everything
// at once.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <semaphore>
#include <thread>

#include "host/base/host_object.h"
#include "host/services/timer_service.h"
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
  TriggerCycle();
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
    TriggerCycle();
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

// The host kit's timer without the delays: 1 ms for what a cycle asks for, none for a submission.
class PromptTimer final : public host::HostObject<zel::ITimerService> {
 public:
  zel::ResultCode ReservedTimerOperation0() override { return zel::eNotImplemented; }
  zel::ResultCode ReservedTimerOperation1() override { return zel::eNotImplemented; }
  zel::ResultCode ArmTimer(zel::IRunnable* sink, std::uint32_t delayMs) override {
    return timer_->ArmTimer(sink, delayMs > 1000 ? 1 : 0);
  }
  zel::ResultCode DisarmTimer(zel::IRunnable* sink) override { return timer_->DisarmTimer(sink); }
  zel::ResultCode CancelTimer(zel::IRunnable* sink) override {
    ++cancelled;
    return timer_->CancelTimer(sink);
  }
  std::uint64_t Cycles() const { return timer_->RunsStarted(); }

  std::atomic<int> cancelled = 0;

 private:
  const zel::Ref<host::TimerService> timer_ = host::MakeObject<host::TimerService>();
};

// Waits a moment for one, and doesn't insist.
void LetACycleBegin(const PromptTimer& timer) {
  const std::uint64_t before = timer.Cycles();
  for (int i = 0; i < 200 && timer.Cycles() == before; ++i) std::this_thread::yield();
}

struct RoundTotals {
  std::uint64_t cycles = 0;
  std::uint64_t requests = 0;
};

// One sender in the hands of eight producers, one who changes settings and one who opens and closes the gate,
// with cycles on a timer's thread and completions on threads of their own. Each of them lets its references
// go when it is done, so the last Release, with its flush, comes from any of them.
void LiveARound(RoundTotals* totals) {
  constexpr int producerCount = 8;
  constexpr int submissions = 40;
  const Plan plans[] = {{.urls = {urlA, urlB}, .packetLimit = 17, .queueLimit = 1000, .sendTimeout = 2},
                        {.urls = {urlB, urlA, urlC}, .packetLimit = 5, .queueLimit = 2000, .sendTimeout = 2}};
  fakes::FakeHost host;
  const auto timer = host::MakeObject<PromptTimer>();
  for (zel::IObject*& service : host.locator->services) {
    if (service == host.timer.Get()) service = timer.Get();
  }
  host.http->usual = HttpAnswer::Status(200, HttpAnswer::When::onThread);
  for (int i = 0; i < 5; ++i) {
    host.http->Answer(HttpAnswer::Status(500, HttpAnswer::When::onThread));
    host.http->Answer(HttpAnswer::Status(200, HttpAnswer::When::atOnce));
    host.http->Answer(HttpAnswer::Failure(zel::eOperationTimeout));
    host.http->Answer(HttpAnswer::Late(zel::eOperationTimeout));
  }
  std::atomic<bool> closed = false;
  host.world.script.Do(
      "IsBackgroundDisabled", [&] { return closed ? 1 : 0; }, 1, Script::always);

  Sender life;
  const ModuleLibrary& module = ModuleLibrary::Get();
  ASSERT_EQ(life.Create(module, host.locator.Get()), zel::sOk);
  ASSERT_EQ(life.construct->Construct(MakeSettings(plans[0])), zel::sOk);
  std::vector<std::thread> threads;
  for (int i = 0; i < producerCount; ++i) {
    threads.emplace_back([own = life, &timer]() mutable {
      for (int n = 0; n < submissions; ++n) {
        EXPECT_EQ(own.Send("{\"n\":" + std::to_string(n) + "}"), zel::sOk);
        if (n % 10 == 0) LetACycleBegin(*timer);
      }
      own.End();
    });
  }
  threads.emplace_back([own = life, &plans, &timer]() mutable {
    for (int n = 0; n < 6; ++n) {
      EXPECT_EQ(own.settings->SetSettings(MakeSettings(plans[n % 2])), zel::sOk);
      LetACycleBegin(*timer);
    }
    own.End();
  });
  threads.emplace_back([own = life, &closed, &timer]() mutable {
    for (int n = 0; n < 10; ++n) {
      closed = !closed;
      LetACycleBegin(*timer);
    }
    own.End();
  });
  life.End();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(timer->cancelled, 1) << "of many releases exactly one is the last";
  host.http->CompleteOpen();
  EXPECT_EQ(module.canUnload(), zel::sOk);

  std::map<char, std::size_t> pushed;   // by queue
  std::map<std::string, char> queueOf;  // by token
  std::map<char, std::size_t> acknowledged;
  for (const std::string& event : host.world.log.Take()) {
    const std::string token = event.substr(event.rfind(' ') + 1);
    if (event.starts_with("Push 0")) ++pushed[event[6]];
    if (event.starts_with("Read 0")) queueOf[token] = event[6];
    if (event.starts_with("Ack ")) ++acknowledged[queueOf[token]];
    totals->requests += event.starts_with("MakeRequest");
  }
  for (const char queue : {'a', 'b'}) {
    EXPECT_EQ(pushed[queue], 1u * producerCount * submissions) << "by a cycle or by the last flush";
    EXPECT_EQ(acknowledged[queue] + host.queues->Items(QueueName(queue)).size(), pushed[queue]);
  }
  totals->cycles += timer->Cycles();
}

// VELD_ROUNDS says how many; scripts/threads runs a thousand.
TEST(ThreadRounds, EverythingAtOnceLosesNothing) {
  const char* const wanted = std::getenv("VELD_ROUNDS");
  const int rounds = wanted ? std::atoi(wanted) : 50;
  ASSERT_GT(rounds, 0);
  RoundTotals totals;
  int round = 0;
  while (round < rounds && !testing::Test::HasFailure()) {
    SCOPED_TRACE("round " + std::to_string(++round));
    LiveARound(&totals);
  }
  std::cout << "rounds " << round << ", cycles " << totals.cycles << ", requests " << totals.requests
            << ", failures " << testing::Test::HasFailure() << std::endl;
}

}  // namespace
}  // namespace veld_report::tests
