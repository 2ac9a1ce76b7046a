// Every allocation of the sender's operations fails once, and every one from there on: the stated code comes
// back, nothing leaks, and the sender is as it was.

#include <functional>
#include <iostream>
#include <new>

#include "tests/module/allocation_sweep.h"
#include "tests/module/long_life.h"

namespace veld_report::tests {
namespace {

// A sender with a host of its own, and what an operation of it has answered.
struct Stage : Sender {
  ~Stage() { host.timer->ForgetCancelled(); }
  ResultCode Construct() { return construct->Construct(MakeSettings(plan)); }
  void Start() {
    ASSERT_EQ(Create(module, host.locator.Get()), zel::sOk);
    ASSERT_EQ(Construct(), zel::sOk);
  }
  // What one more cycle does.
  Strings Cycle(const Strings& prefixes) {
    EXPECT_EQ(Send("{}", "nobody"), zel::sOk);
    host.world.log.Take();
    host.tracer->TakeLines();
    EXPECT_TRUE(host.timer->Fire());
    return host.world.log.TakeOnly(prefixes);
  }
  // Asserts that the one failure that was traced is the lack of memory.
  void ExpectTraced(const Strings& lines, const char* function) {
    std::size_t failures = 0;
    for (const std::string& line : lines) {
      if (!line.starts_with("300")) continue;
      ++failures;
      EXPECT_THAT(line, testing::HasSubstr(function));
      EXPECT_THAT(line, testing::AnyOf(testing::HasSubstr("std::bad_alloc"), testing::HasSubstr("0x80000041"),
                                       testing::EndsWith("() ")));
    }
    EXPECT_GE(failures, 1u);
  }

  const ModuleLibrary& module = ModuleLibrary::Get();
  fakes::FakeHost host;
  const Plan plan{.urls = {u"http://reports.example/of/b", u"http://reports.example/of/a"},
                  .consumers = {"the consumer of the first url", "the consumer of the second url"}};
  const Plan other{.urls = {u"http://reports.example/of/c"}, .queueLimit = 77};
  const SenderSettings planned = MakeSettings(plan), otherSettings = MakeSettings(other);
  fakes::TextRecord record{zel::string("a text that is longer than a string's own buffer")};
  const zel::string consumer{"the consumer of the first url"};
  ResultCode code = zel::eUnexpected;
};

// One operation: what stands before it, the call itself, and what holds after it.
struct Operation {
  const char* name;
  std::function<void(Stage&)> prepare;
  std::function<void(Stage&)> run;
  std::function<void(Stage&, bool failed)> check;
};

void PrepareSubmission(Stage& stage) {
  stage.Start();
  stage.host.tracer->TakeLines();
  stage.host.world.log.Take();
}
void CheckSubmission(Stage& stage, bool failed) {
  EXPECT_EQ(stage.code, zel::sOk) << "the outcome reaches the trace alone";
  EXPECT_EQ(stage.host.mode->References(), 2u) << "the keeper: the host and the sender's own service";
  const Strings lines = stage.host.tracer->TakeLines();
  EXPECT_THAT(lines.back(), testing::HasSubstr(failed ? " wasn't added" : " was added"));
  EXPECT_THAT(lines.back(), testing::EndsWith(failed ? ". Result is-2147483583" : ". Result is0"));
  if (failed) stage.ExpectTraced(lines, "::SendStatistic() ");
  EXPECT_EQ(stage.host.timer->Armed(), !failed);
  EXPECT_EQ(stage.Cycle({"Push"}).empty(), failed) << "`pending` is as it was";
}

// clang-format off
const Operation operations[] = {
    {"Creation", [](Stage&) {},
     [](Stage& s) { s.code = s.Create(s.module, s.host.locator.Get()); },
     [](Stage& s, bool failed) {
       EXPECT_EQ(s.code, failed ? zel::eOutOfMemory : zel::sOk);
       EXPECT_EQ(s.sender.Get() == nullptr, failed);
       EXPECT_EQ(s.module.canUnload() == zel::sOk, failed);
     }},
    {"Construct", [](Stage& s) { EXPECT_EQ(s.Create(s.module, s.host.locator.Get()), zel::sOk); },
     [](Stage& s) { s.code = s.construct->Construct(s.planned); },
     [](Stage& s, bool failed) {
       EXPECT_EQ(s.code, failed ? zel::eOutOfMemory : zel::sOk);
       if (failed) s.ExpectTraced(s.host.tracer->TakeLines(), "::Construct() ");
       EXPECT_EQ(s.Send("{}"), failed ? zel::eNotInitialized : zel::sOk);
       EXPECT_EQ(s.settings->SetSettings(s.planned), failed ? zel::eNotInitialized : zel::sOk);
       EXPECT_EQ(s.host.timer->Armed(), !failed);
     }},
    {"SetSettings",
     [](Stage& s) {
       s.Start();
       s.Cycle({});
       s.host.queues->Put(QueueName('a'), "{\"waits\":1}");
     },
     [](Stage& s) {
       try {
         s.code = s.settings->SetSettings(s.otherSettings);
       } catch (const std::bad_alloc&) {
         s.code = zel::eOutOfMemory;
       }
     },
     [](Stage& s, bool failed) {
       EXPECT_EQ(s.code, failed ? zel::eOutOfMemory : zel::sOk);
       EXPECT_EQ(s.host.timer->Armed(), !failed);
       const Strings events = s.Cycle({"RemoveQueue", "MakeRequest"});
       EXPECT_THAT(events, ElementsAre(failed ? "MakeRequestAsync http://reports.example/of/a"
                                              : "RemoveQueue 0a"));
       EXPECT_EQ(testing::Value(s.host.tracer->TakeLines(), testing::Contains(Line("UpdateQueues started"))),
                 !failed);
     }},
    {"SendStatistic", PrepareSubmission,
     [](Stage& s) {
       s.code = s.sender->SendStatistic(s.consumer, zel::AnyPtr(&s.record, &fakes::textRecordDescriptor,
                                                                s.host.mode.Get()));
     },
     CheckSubmission},
    {"SendStatisticToAll", PrepareSubmission,
     [](Stage& s) {
       s.code = s.sender->SendStatistic(zel::AnyPtr(&s.record, &fakes::textRecordDescriptor, s.host.mode.Get()));
     },
     CheckSubmission},
    {"LastRelease",
     [](Stage& s) {
       s.Start();
       EXPECT_EQ(s.Send("{\"n\":1}"), zel::sOk);
       EXPECT_EQ(s.Send("{\"n\":2}", "the consumer of the second url"), zel::sOk);
       s.host.world.log.Take();
       s.host.tracer->TakeLines();
     },
     [](Stage& s) { s.End(); },
     [](Stage& s, bool failed) {
       const Strings pushed = s.host.world.log.TakeOnly({"Push"});
       EXPECT_EQ(pushed.size() < 3, failed) << "an element loses the rows that it hasn't reached";
       if (failed) s.ExpectTraced(s.host.tracer->TakeLines(), "::QueuePendingData() ");
       EXPECT_EQ(s.module.canUnload(), zel::sOk);
     }},
};
// clang-format on

class Allocation : public testing::TestWithParam<OutOfMemoryMode> {
 protected:
  void SetUp() override {
    if (GetParam().ofHeap && !ModuleHeap::Available()) GTEST_SKIP() << "the sanitizer has a heap of its own";
  }
  template <class RunOne>
  void Sweep(const char* name, bool allocates, RunOne&& runOne) {
    SCOPED_TRACE(name);
    const int failed =
        SweepAllocations(GetParam(), reinterpret_cast<const void*>(ModuleLibrary::Get().canUnload), runOne);
    std::cout << "  " << name << ": " << failed << " allocations failed" << std::endl;
    RecordProperty(name, failed);
    EXPECT_EQ(failed > 0, allocates);
  }
};

TEST_P(Allocation, EachOperationAnswersTheStatedCodeAndLeavesTheSenderAsItWas) {
  const bool ofHeap = GetParam().ofHeap;
  for (const Operation& operation : operations) {
    // What is pending and what is queued lives in the process heap.
    const std::string_view name = operation.name;
    const bool allocates = ofHeap || !(name.starts_with("SendStatistic") || name == "LastRelease");
    Sweep(operation.name, allocates, [&](FailingAllocation& failing) {
      Stage stage;
      operation.prepare(stage);
      failing.Start(*stage.host.allocator);
      operation.run(stage);
      const bool failed = failing.Stop(*stage.host.allocator);
      operation.check(stage, failed);
      stage.End();
      stage.host.ExpectNothingHeld();
      EXPECT_EQ(stage.module.canUnload(), zel::sOk);
      return failed;
    });
  }
}

TEST_P(Allocation, AWholeLifeLosesAtMostTheSubmissionInHand) {
  Sweep("WholeLife", true, [&](FailingAllocation& failing) {
    LongLife life;
    fakes::FakeAllocator& allocator = *life.host.allocator;
    bool failed = false;
    failing.Start(allocator);
    life.Run([&] {
      if (!failing.Failed(allocator)) return false;
      return failed = failing.Stop(allocator);
    });
    failed = failing.Stop(allocator) || failed;
    life.CheckAfterwards(!failed              ? LongLife::Loss::nothing
                         : GetParam().onwards ? LongLife::Loss::submissions
                                              : LongLife::Loss::oneSubmission);
    EXPECT_THAT(life.Thrown(), testing::Each(testing::StrEq("SetSettings")));
    return failed;
  });
}

INSTANTIATE_TEST_SUITE_P(, Allocation, testing::ValuesIn(outOfMemoryModes),
                         [](const auto& mode) { return mode.param.name; });

}  // namespace
}  // namespace veld_report::tests
