// The sender under many threads, with everything at once.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "tests/module/module_host.h"

namespace veld_report::tests {
namespace {

using orvel::veld_report::SenderSettings;

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
void LiveARound(const ModuleLibrary& module, RoundTotals* totals) {
  constexpr int producerCount = 8;
  constexpr int submissions = 40;
  const SenderSettings plans[] = {MakeSettings({u"http://a", u"http://b"}, 17),
                                  MakeSettings({u"http://b", u"http://a"}, 5)};
  std::vector<Answer> answers;
  for (int i = 0; i < 5; ++i) {
    answers.insert(answers.end(), {Answer::refused, Answer::atOnce, Answer::failure, Answer::late});
  }
  const ModuleHost host(answers);
  const auto timer = host::MakeObject<PromptTimer>();
  host.locator->Register<zel::ITimerService>(timer);

  Sender life;
  ASSERT_EQ(life.Create(module, host.locator.Get()), zel::sOk);
  ASSERT_EQ(life.construct->Construct(plans[0]), zel::sOk);
  std::vector<std::thread> threads;
  for (int i = 0; i < producerCount; ++i) {
    threads.emplace_back([own = life, &timer]() mutable {
      for (int n = 0; n < submissions; ++n) {
        EXPECT_EQ(own.Send(std::to_string(n)), zel::sOk);
        if (n % 10 == 0) LetACycleBegin(*timer);
      }
      own = {};
    });
  }
  threads.emplace_back([own = life, &plans, &timer]() mutable {
    for (int n = 0; n < 6; ++n) {
      EXPECT_EQ(own.settings->SetSettings(plans[n % 2]), zel::sOk);
      LetACycleBegin(*timer);
    }
    own = {};
  });
  threads.emplace_back([own = life, &host, &timer]() mutable {
    for (int n = 0; n < 10; ++n) {
      host.mode->AllowBackground(n % 2 != 0);
      LetACycleBegin(*timer);
    }
    own = {};
  });
  life = {};
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(timer->cancelled, 1) << "of many releases exactly one is the last";
  host.client->Finish();
  EXPECT_EQ(module.canUnload(), zel::sOk);

  const own_host::MemoryQueues::Counts counts = host.queues->Count();
  EXPECT_EQ(counts.accepted, 2u * producerCount * submissions) << "by a cycle or by the last flush";
  EXPECT_EQ(counts.waiting + host.client->DeliveredItems(), counts.accepted);
  totals->requests += host.client->Requests();
  totals->cycles += timer->Cycles();
}

// VELD_ROUNDS says how many; scripts/threads runs a thousand.
TEST(ThreadRounds, EverythingAtOnceLosesNothing) {
  const char* const wanted = std::getenv("VELD_ROUNDS");
  const int rounds = wanted ? std::atoi(wanted) : 50;
  ASSERT_GT(rounds, 0);
  const ModuleLibrary module;
  RoundTotals totals;
  int round = 0;
  while (round < rounds && !testing::Test::HasFailure()) {
    SCOPED_TRACE("round " + std::to_string(++round));
    LiveARound(module, &totals);
  }
  std::cout << "rounds " << round << ", cycles " << totals.cycles << ", requests " << totals.requests
            << ", failures " << testing::Test::HasFailure() << std::endl;
}

}  // namespace
}  // namespace veld_report::tests
