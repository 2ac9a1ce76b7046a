#include "host/services/timer_service.h"

#include <gtest/gtest.h>

#include "tests/host/manual_clock.h"
#include "tests/host/timer_contract.h"

namespace veld_report::tests {
namespace {

using host::MakeObject;
using host::TimerService;
using std::chrono::milliseconds;

TimerUnderTest OnMachineClock() {
  return {MakeObject<TimerService>(), [](auto) {}};
}

TimerUnderTest OnManualClock() {
  const auto clock = std::make_shared<ManualClock>();
  return {MakeObject<TimerService>(host::TimerOptions{.clock = clock, .tracer = {}}),
          [clock](std::uint32_t by) { clock->Advance(milliseconds(by)); }};
}

INSTANTIATE_TEST_SUITE_P(TimerService, TimerContract, testing::Values(OnMachineClock, OnManualClock));

class TimerServiceTest : public testing::Test {
 protected:
  // Waits until everything that is due has run: the marker is armed last.
  void AdvanceAndSettle(int byMs) {
    clock->Advance(milliseconds(byMs));
    RecordingSink marker(timer.Get());
    timer->ArmTimer(&marker, 0);
    ASSERT_TRUE(marker.WaitForEnds(1));
  }

  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  zel::Ref<TimerService> timer = MakeObject<TimerService>(host::TimerOptions{.clock = clock, .tracer = {}});
};

TEST_F(TimerServiceTest, TheEarliestTimeCountsHoweverOftenALaterOneIsAskedFor) {
  RecordingSink sink(timer.Get());
  timer->ArmTimer(&sink, 0xffffffff);
  for (int i = 0; i < 10; ++i) {
    timer->ArmTimer(&sink, 1000);
    AdvanceAndSettle(99);
    EXPECT_EQ(sink.Started(), 0);
  }
  AdvanceAndSettle(10);
  EXPECT_EQ(sink.Started(), 1);
  EXPECT_FALSE(timer->IsArmed()) << "a later firing is still pending";
}

TEST_F(TimerServiceTest, FireNowBringsForwardAndAFlushWaitsForItsOwnRun) {
  Gate gate;
  RecordingSink sink(timer.Get(), [&](auto*) { EXPECT_TRUE(gate.WaitOpen()); });
  timer->ArmTimer(&sink, 0);
  ASSERT_TRUE(sink.WaitForStarts(1));
  timer->ArmTimer(&sink, 60000);

  const std::uint64_t before = timer->RunsStarted();
  EXPECT_EQ(before, 1u);
  EXPECT_EQ(timer->FireNow(), 1u);
  // The Run that was in progress doesn't count, and it holds the next one up.
  EXPECT_FALSE(timer->WaitForRun(before, std::chrono::steady_clock::now() + milliseconds(20)));
  gate.Open();
  EXPECT_TRUE(timer->WaitForRun(before, std::chrono::steady_clock::now() + std::chrono::seconds(20)));
  EXPECT_EQ(sink.Started(), 2);
  EXPECT_EQ(timer->FireNow(), 0u);
}

// The sink drops what is pending when a Run begins, and arms for a minute at its end, like the module's.
TEST_F(TimerServiceTest, TheLastSinkRunsAgainUnlessItIsCancelled) {
  EXPECT_FALSE(timer->RunWithin(50)) << "there was no Run";
  RecordingSink sink(timer.Get(), [&](RecordingSink* self) {
    timer->RunWithin(70);
    timer->DisarmTimer(self);
    timer->RunWithin(50);
    if (self->Started() == 2) timer->ArmTimer(self, 20);
    if (self->Started() >= 4) timer->CancelTimer(self);
  });
  timer->ArmTimer(&sink, 1000);
  int runs = 0;
  for (const int delay : {1000, 50, 20}) {
    AdvanceAndSettle(delay - 1);
    EXPECT_EQ(sink.Started(), runs);
    clock->Advance(milliseconds(1));
    ASSERT_TRUE(sink.WaitForEnds(++runs));
  }
  AdvanceAndSettle(50);
  EXPECT_EQ(sink.Started(), 4);
  AdvanceAndSettle(60000);
  EXPECT_EQ(sink.Started(), 4) << "it was cancelled";

  RecordingSink idle(timer.Get());
  timer->ArmTimer(&idle, 0);
  ASSERT_TRUE(idle.WaitForEnds(1));
  EXPECT_TRUE(timer->RunWithin(1000));
  EXPECT_TRUE(timer->RunWithin(10));
  clock->Advance(milliseconds(10));
  ASSERT_TRUE(idle.WaitForEnds(2));
  EXPECT_FALSE(timer->IsArmed());
}

TEST(TimerServiceEnd, TheLastReleaseMayComeFromARunAndPendingFiringsAreForgotten) {
  Gate threadGone;
  // The last owner of the clock is the queue that the thread holds.
  std::shared_ptr<ManualClock> clock(new ManualClock, [&](ManualClock* last) {
    delete last;
    threadGone.Open();
  });
  ManualClock* const running = clock.get();
  auto timer = MakeObject<TimerService>(host::TimerOptions{.clock = std::move(clock), .tracer = {}});
  Gate gate;
  RecordingSink sink(nullptr, [&](auto*) {
    EXPECT_TRUE(gate.WaitOpen());
    running->Advance(milliseconds(20));
    timer.Reset();
  });
  RecordingSink pending(nullptr);
  timer->ArmTimer(&pending, 10);
  timer->ArmTimer(&sink, 0);
  gate.Open();
  EXPECT_TRUE(sink.WaitForEnds(1));
  EXPECT_TRUE(threadGone.WaitOpen());
  EXPECT_EQ(pending.Started(), 0);
}

}  // namespace
}  // namespace veld_report::tests
