// What every timer service has to do, whatever clock it goes by.
//
// A test program gives the suite a TimerMaker and instantiates it:
//   INSTANTIATE_TEST_SUITE_P(Real, TimerContract, testing::Values(MakeIt));
#pragma once

#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "contract/timer.h"
#include "tests/common/waiting.h"
#include "tests/host/recording_sink.h"
#include "types/ref.h"

namespace veld_report::tests {

// A service and what makes its time pass. `pass` brings at least so many milliseconds about; for a service
// that goes by the machine's clock it does nothing, and time passes by itself.
struct TimerUnderTest {
  zel::Ref<zel::ITimerService> service;
  std::function<void(std::uint32_t)> pass;
};

using TimerMaker = TimerUnderTest (*)();

class TimerContract : public testing::TestWithParam<TimerMaker> {
 protected:
  // Waits until all that is due within so many milliseconds has run.
  void PassAndSettle(std::uint32_t milliseconds) {
    RecordingSink last(&service);
    service.ArmTimer(&last, milliseconds);
    timer.pass(milliseconds);
    ASSERT_TRUE(last.WaitForEnds(1));
  }

  TimerUnderTest timer = GetParam()();
  zel::ITimerService& service = *timer.service;
};

TEST_P(TimerContract, ASinkRunsOncePerArmingUnlessDisarmedOrCancelled) {
  RecordingSink sink(&service);
  RecordingSink disarmed(&service);
  RecordingSink cancelled(&service);
  for (int round = 1; round <= 2; ++round) {
    for (RecordingSink* each : {&sink, &disarmed, &cancelled}) {
      EXPECT_EQ(service.ArmTimer(each, 10), zel::sOk);
    }
    EXPECT_EQ(service.DisarmTimer(&disarmed), zel::sOk);
    EXPECT_EQ(service.CancelTimer(&cancelled), zel::sOk);
    PassAndSettle(20);
    EXPECT_EQ(sink.Started(), round);
  }
  EXPECT_EQ(disarmed.Started(), 0);
  EXPECT_EQ(cancelled.Started(), 0);
}

// The module arms and disarms under a lock that its Run takes first.
TEST_P(TimerContract, ArmingAndDisarmingDoNotWaitForARun) {
  Gate gate;
  RecordingSink sink(&service, [&](auto*) { EXPECT_TRUE(gate.WaitOpen()); });
  service.ArmTimer(&sink, 0);
  ASSERT_TRUE(sink.WaitForStarts(1));
  EXPECT_EQ(service.ArmTimer(&sink, 1), zel::sOk);
  EXPECT_EQ(service.DisarmTimer(&sink), zel::sOk);
  EXPECT_EQ(service.ArmTimer(&sink, 1), zel::sOk);
  EXPECT_TRUE(sink.IsRunning());
  gate.Open();
  ASSERT_TRUE(sink.WaitForEnds(1));
  timer.pass(1);
  EXPECT_TRUE(sink.WaitForEnds(2)) << "an arming during a Run was lost";
}

TEST_P(TimerContract, CancelWaitsForTheRunAndNoneFollows) {
  Gate gate;
  RecordingSink sink(&service, [&](RecordingSink* self) {
    EXPECT_TRUE(gate.WaitOpen());
    service.ArmTimer(self, 0);
  });
  service.ArmTimer(&sink, 0);
  ASSERT_TRUE(sink.WaitForStarts(1));
  std::thread canceller([&] {
    service.CancelTimer(&sink);
    EXPECT_FALSE(sink.IsRunning());
  });
  gate.Open();
  canceller.join();
  // The canceller may have come late, after a Run that armed again; what counts is that all is quiet now.
  const int runs = sink.Started();
  PassAndSettle(1);
  EXPECT_EQ(sink.Started(), runs);
}

TEST_P(TimerContract, ARunMayCancelItsOwnSinkAndThrow) {
  RecordingSink sink(&service, [&](RecordingSink* self) {
    service.ArmTimer(self, 0);
    service.CancelTimer(self);
    throw std::runtime_error("from a Run");
  });
  for (int round = 1; round <= 2; ++round) {
    service.ArmTimer(&sink, 0);
    ASSERT_TRUE(sink.WaitForEnds(round));
    PassAndSettle(1);
    EXPECT_EQ(sink.Started(), round);
  }
}

// Eight threads arm, disarm and cancel one sink, whose Runs must never overlap.
TEST_P(TimerContract, ManyThreadsOnOneSink) {
  RecordingSink sink(&service);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 200; ++round) {
        service.ArmTimer(&sink, 0);
        if (round % 5 == i % 5) service.DisarmTimer(&sink);
        if (round % 50 == i) service.CancelTimer(&sink);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  service.CancelTimer(&sink);
  EXPECT_FALSE(sink.IsRunning());
}

}  // namespace veld_report::tests
