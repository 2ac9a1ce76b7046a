// The sender under many threads, with everything at once.

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
      "IsBackgroundDisabled", [&] { return closed ? 1 : 0; }, 1, fakes::Script::always);

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
