#include <gtest/gtest.h>

#include <tuple>

#include "tests/world/heap.h"
#include "tests/world/runs.h"

namespace veld_report::world {
namespace {

TEST(WorldTest, NoWorldFails) {
  Progress progress;
  // As many as a sanitizer build has time for, and then more where they are quick.
  auto failure = RunWorlds(progress, 240, 150);
  if (!failure) failure = RunWorlds(progress, 3);
  EXPECT_FALSE(failure) << failure->invariant << ", " << failure->text << "\nworld --worlds 1 --seed "
                        << progress.seed;
  EXPECT_GE(progress.worlds, 150u);
  EXPECT_GE(progress.cycles, 3000u);
}

TEST(WorldTest, WorldsReachWhatTheyAreFor) {
  Host::seen = {};
  const std::uint64_t locks = Locks::Taken();
  for (std::uint64_t seed = 1; seed <= 1500; ++seed) {
    const Outcome outcome = RunScript(MakeScript(seed));
    ASSERT_FALSE(outcome.Failed()) << "seed " << seed << ": " << outcome.failure.text;
  }
  EXPECT_GT(Locks::Taken(), locks) << "the module's locks pass the world by";
  for (int i = 0; i <= static_cast<int>(Op::commitBuffer); ++i) {
    const auto op = static_cast<Op>(i);
    const Host::Seen& seen = Host::seen[static_cast<std::size_t>(i)];
    EXPECT_GT(seen.plain, 0u) << Name(op);
    if (op == Op::cancel) continue;  // nobody looks at its result, and it is rare
    EXPECT_GT(seen.negative, 0u) << Name(op);
    EXPECT_GT(seen.positive, 0u) << Name(op);
    EXPECT_EQ(seen.thrown > 0, op < Op::acquireBuffer) << Name(op);
  }
  for (const Op op : {Op::push, Op::read, Op::wait, Op::createProducer, Op::serialize, Op::ack}) {
    EXPECT_GT(Host::seen[static_cast<std::size_t>(op)].entered, 0u) << Name(op);
  }
}

TEST(WorldTest, CleaningUpThatThrowsGoesUnnoticed) {
  for (std::uint64_t seed = 1; seed <= 300; ++seed) {
    Script script = MakeScript(seed);
    for (Step& step : script) {
      if (step.kind == Step::Kind::restart) step.a |= cleanUpThrows;
    }
    const Outcome outcome = RunScript(script);
    ASSERT_FALSE(outcome.Failed()) << "seed " << seed << ": " << outcome.failure.text;
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

}  // namespace
}  // namespace veld_report::world
