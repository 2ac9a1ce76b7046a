#include "host/timer/timer_service.h"

#include <gtest/gtest.h>

#include "tests/host/manual_clock.h"
#include "tests/host/timer_contract.h"

namespace veld_report::tests {
namespace {

using host::MakeObject;
using host::TimerService;
using std::chrono::milliseconds;

TimerUnderTest OnMachineClock() { return {MakeObject<TimerService>(), {}}; }

TimerUnderTest OnManualClock() {
  const auto clock = std::make_shared<ManualClock>();
  return {MakeObject<TimerService>(host::TimerOptions{.clock = clock, .tracer = {}}),
          [clock](std::uint32_t by) { clock->Advance(milliseconds(by)); }};
}

INSTANTIATE_TEST_SUITE_P(TimerService, TimerContract,
                         testing::Values(TimerMaker{"machine clock", OnMachineClock},
                                         TimerMaker{"manual clock", OnManualClock}));

class TimerServiceTest : public testing::Test {
 protected:
  // Waits until everything that is due at the clock's time has run: the marker was armed last.
  void Settle() {
    RecordingSink marker;
    timer->ArmTimer(&marker, 0);
    ASSERT_TRUE(marker.WaitForEnds(1));
    timer->CancelTimer(&marker);
  }

  const std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
  zel::Ref<TimerService> timer = MakeObject<TimerService>(host::TimerOptions{.clock = clock, .tracer = {}});
};

TEST_F(TimerServiceTest, ASteadyStreamOfArmingsDoesNotPutTheFiringOff) {
  RecordingSink sink;
  for (int i = 0; i < 10; ++i) {
    timer->ArmTimer(&sink, 1000);
    clock->Advance(milliseconds(99));
    Settle();
    EXPECT_EQ(sink.Started(), 0);
  }
  clock->Advance(milliseconds(10));
  ASSERT_TRUE(sink.WaitForEnds(1));
  EXPECT_FALSE(timer->IsArmed());
}

TEST_F(TimerServiceTest, AnEarlierTimeReplacesALaterOne) {
  RecordingSink sink;
  timer->ArmTimer(&sink, 0xffffffff);
  timer->ArmTimer(&sink, 10);
  clock->Advance(milliseconds(9));
  Settle();
  EXPECT_EQ(sink.Started(), 0);
  clock->Advance(milliseconds(1));
  ASSERT_TRUE(sink.WaitForEnds(1));
  EXPECT_FALSE(timer->IsArmed()) << "the later firing is still pending";
}

TEST_F(TimerServiceTest, FireNowBringsAllForwardAndAFlushWaitsForARunOfItsOwn) {
  Gate gate;
  RecordingSink sink([&] { EXPECT_TRUE(gate.WaitOpen()); });
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

// A sink like the module's: each Run is cut short, asks for the next one soon, and arms for a minute.
TEST_F(TimerServiceTest, HurryingShortensAnArmingButNotWithoutEnd) {
  RecordingSink* self = nullptr;
  RecordingSink sink([&] {
    timer->Hurry(50, 3);
    timer->ArmTimer(self, 60000);
  });
  self = &sink;
  int runs = 0;
  const auto runsWithin = [&](milliseconds delay) {
    clock->Advance(delay - milliseconds(1));
    Settle();
    EXPECT_EQ(sink.Started(), runs);
    clock->Advance(milliseconds(1));
    ASSERT_TRUE(sink.WaitForEnds(++runs));
  };
  timer->ArmTimer(&sink, 1000);
  for (int row = 0; row < 2; ++row) {
    runsWithin(milliseconds(row == 0 ? 1000 : 60000));
    for (int i = 0; i < 3; ++i) runsWithin(milliseconds(50));
  }
  timer->CancelTimer(&sink);
}

TEST_F(TimerServiceTest, HurryingBringsAPendingFiringForward) {
  EXPECT_FALSE(timer->Hurry(50, 1)) << "no Run is in progress";
  RecordingSink* self = nullptr;
  RecordingSink sink([&] {
    timer->ArmTimer(self, 60000);
    timer->Hurry(50, 1);
  });
  self = &sink;
  timer->ArmTimer(&sink, 0);
  ASSERT_TRUE(sink.WaitForEnds(1));
  clock->Advance(milliseconds(50));
  EXPECT_TRUE(sink.WaitForEnds(2));
  timer->CancelTimer(&sink);
}

TEST_F(TimerServiceTest, ExceptionsAreCounted) {
  RecordingSink sink([] { throw 1; });
  timer->ArmTimer(&sink, 0);
  ASSERT_TRUE(timer->WaitForRun(0, std::chrono::steady_clock::now() + std::chrono::seconds(20)));
  EXPECT_EQ(timer->FailedRuns(), 1u);
}

TEST_F(TimerServiceTest, ArmingNullIsRefused) {
  EXPECT_EQ(timer->ArmTimer(nullptr, 0), zel::eInvalidArgument);
  EXPECT_FALSE(timer->IsArmed());
}

TEST_F(TimerServiceTest, PendingFiringsAreForgottenWithTheService) {
  RecordingSink sink;
  timer->ArmTimer(&sink, 10);
  timer.Reset();
  clock->Advance(milliseconds(20));
  EXPECT_EQ(sink.Started(), 0);
}

TEST(TimerServiceEnd, TheLastReleaseMayComeFromARun) {
  Gate threadGone;
  // The last owner of the clock is the queue that the thread holds.
  std::shared_ptr<ManualClock> clock(new ManualClock, [&](ManualClock* last) {
    delete last;
    threadGone.Open();
  });
  auto timer = MakeObject<TimerService>(host::TimerOptions{.clock = std::move(clock), .tracer = {}});
  Gate gate;
  RecordingSink sink([&] {
    EXPECT_TRUE(gate.WaitOpen());
    timer.Reset();
  });
  timer->ArmTimer(&sink, 0);
  ASSERT_TRUE(sink.WaitForStarts(1));
  gate.Open();
  EXPECT_TRUE(sink.WaitForEnds(1));
  EXPECT_TRUE(threadGone.WaitOpen());
}

}  // namespace
}  // namespace veld_report::tests
