#include <gmock/gmock.h>

#include <tuple>

#include "tests/world/child.h"
#include "tests/world/heap.h"
#include "tests/world/shrink.h"
#include "tests/world/world.h"

namespace veld_report::world {
namespace {

TEST(WorldTest, NoWorldFails) {
  Progress* progress = MakeProgress();
  progress->seed = 1;
  // As many as a sanitizer build has time for, and then more where they are quick.
  const double start = SteadySeconds();
  const bool ended = RunWorlds(progress, start + 240, 150) && RunWorlds(progress, start + 3, UINT64_MAX);
  EXPECT_TRUE(ended) << "seed " << progress->seed << " fails: world --worlds 1 --seed " << progress->seed;
  EXPECT_GE(progress->worlds, 150u);
  EXPECT_GE(progress->cycles, 3000u);
}

TEST(WorldTest, WorldsReachWhatTheyAreFor) {
  Host::seen = {};
  const std::uint64_t locks = Locks::Taken();
  for (std::uint64_t seed = 1; seed <= 1500; ++seed) {
    const Outcome outcome = RunScript(MakeScript(seed));
    ASSERT_FALSE(outcome.Failed()) << "seed " << seed << ": " << outcome.failure.text;
  }
  EXPECT_GT(Locks::Taken(), locks) << "the module's locks pass the world by";
  for (int i = 0; i <= static_cast<int>(Op::flush); ++i) {
    const auto op = static_cast<Op>(i);
    const Host::Seen& seen = Host::seen[static_cast<std::size_t>(i)];
    EXPECT_GT(seen.plain, 0u) << Name(op);
    if (op == Op::cancel) continue;  // its result is looked at nowhere, and it is rare
    EXPECT_GT(seen.negative, 0u) << Name(op);
    EXPECT_GT(seen.positive, 0u) << Name(op);
    EXPECT_EQ(seen.thrown > 0, op != Op::cancelTimer) << Name(op);
  }
  for (const Op op : {Op::push, Op::read, Op::wait, Op::createProducer, Op::serialize, Op::ack}) {
    EXPECT_GT(Host::seen[static_cast<std::size_t>(op)].entered, 0u) << Name(op);
  }
}

TEST(WorldTest, TheSameSeedGivesTheSameWorld) {
  const auto run = [] {
    const std::uint64_t before = Locks::Taken();
    const Outcome outcome = RunScript(MakeScript(42));
    return std::make_tuple(outcome.cycles, Locks::Taken() - before);
  };
  EXPECT_EQ(run(), run());
}

TEST(ScriptTest, TextAndBack) {
  for (std::uint64_t seed = 1; seed < 50; ++seed) {
    const std::string text = ToText(MakeScript(seed));
    EXPECT_EQ(ToText(FromText(text)), text);
  }
  for (const char* wrong : {"fly 1 2 3", "advance 1", "fault Nothing 0 1 1", "settings 0 0 0 1 1 1 0 e0"}) {
    EXPECT_THROW(FromText(wrong), std::invalid_argument) << wrong;
  }
}

struct LieCase {
  Lie lie;
  const char* broken;
};

class LyingHostTest : public testing::TestWithParam<LieCase> {
 protected:
  // The first seed at which it shows.
  static Script FirstFailure(Lie lie, Failure* failure) {
    for (std::uint64_t seed = 1; seed < 200; ++seed) {
      const Script script = MakeScript(seed);
      const Outcome outcome = RunScript(script, lie);
      if (!outcome.Failed()) continue;
      *failure = outcome.failure;
      return script;
    }
    return {};
  }
};

TEST_P(LyingHostTest, BreaksItsInvariant) {
  if (GetParam().lie == Lie::memory && Heap::LiveBlocks() == 0) GTEST_SKIP() << "the sanitizer has the heap";
  Failure failure;
  FirstFailure(GetParam().lie, &failure);
  EXPECT_EQ(failure.invariant, GetParam().broken) << failure.text;
}

INSTANTIATE_TEST_SUITE_P(
    EachInvariant, LyingHostTest,
    testing::Values(LieCase{Lie::refusedIsDelivered, invariant::acknowledged},
                    LieCase{Lie::item, invariant::ledger}, LieCase{Lie::newestFirst, invariant::order},
                    LieCase{Lie::body, invariant::body}, LieCase{Lie::arming, invariant::calls},
                    LieCase{Lie::lock, invariant::locks}, LieCase{Lie::reference, invariant::balance},
                    LieCase{Lie::memory, invariant::balance}, LieCase{Lie::push, invariant::queues},
                    LieCase{Lie::silence, invariant::delivery}));

using ShrinkTest = LyingHostTest;

// Five requests have to be made until a body is damaged, so nothing much shorter fails.
TEST_F(ShrinkTest, LeavesWhatTheFailureNeeds) {
  Failure failure;
  const Script script = FirstFailure(Lie::body, &failure);
  const auto fails = [&](const Script& shorter) {
    return RunScript(shorter, Lie::body).failure.invariant == failure.invariant;
  };
  const Script shortest = Shrink(script, fails);
  EXPECT_TRUE(fails(shortest));
  EXPECT_TRUE(fails(FromText(ToText(shortest)))) << ToText(shortest);
  EXPECT_LE(shortest.size(), 8u) << ToText(shortest);
  EXPECT_LT(shortest.size(), script.size());
  for (std::size_t i = 0; i < shortest.size(); ++i) {
    Script without = shortest;
    without.erase(without.begin() + static_cast<std::ptrdiff_t>(i));
    EXPECT_FALSE(fails(without)) << "step " << i << " isn't needed:\n" << ToText(shortest);
  }
}

TEST_F(ShrinkTest, AChildTellsOfAFailureAndOfADeath) {
  Failure failure;
  const Script script = FirstFailure(Lie::body, &failure);
  std::string text;
  EXPECT_EQ(RunInChild(script, Lie::none, &text), "");
  EXPECT_EQ(RunInChild(script, Lie::body, &text), invariant::body);
  EXPECT_THAT(text, testing::HasSubstr(failure.text.substr(0, 100)));
  // Such a step can't be written in a script.
  EXPECT_EQ(RunInChild({{.kind = Step::Kind::foreign, .a = 1 << 30}}, Lie::none, &text), crash);
}

}  // namespace
}  // namespace veld_report::world
