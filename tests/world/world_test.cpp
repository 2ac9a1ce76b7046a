// Worlds from seeds. VELD_SECONDS says how long, and VELD_SEED from which one on; scripts/world sets them.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include "tests/world/world.h"

#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
// Of the sanitizers, which end a process without a signal.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));
#endif

namespace veld_report::world {
namespace {

constexpr unsigned worldLimitSeconds = 60;
volatile std::uint64_t seedNow = 0;

// If the process dies in a world, or a world doesn't end, stderr says which.
void SayWhere() {
  char text[64];
  const int length =
      std::snprintf(text, sizeof text, "world: in seed %llu\n", static_cast<unsigned long long>(seedNow));
  static_cast<void>(!write(2, text, static_cast<unsigned>(length)));
}

void OnDeath(int signal) {
  SayWhere();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

class WorldTest : public testing::Test {
 protected:
  WorldTest() {
    for (const int signal : {SIGSEGV, SIGABRT}) std::signal(signal, OnDeath);
#if !defined(_WIN32)
    std::signal(SIGALRM, OnDeath);
    if (__sanitizer_set_death_callback) __sanitizer_set_death_callback(SayWhere);
#endif
  }
  ~WorldTest() override { LimitTime(0); }

  // Windows has no alarm: there the limit is the one of the whole program.
  static void LimitTime([[maybe_unused]] unsigned seconds) {
#if !defined(_WIN32)
    alarm(seconds);
#endif
  }

  // `missing`: for each of its senders.
  static Outcome RunSeed(std::uint64_t seed, int missing = 0) {
    LimitTime(worldLimitSeconds);
    seedNow = seed;
    Script script = MakeScript(seed);
    for (Step& step : script) {
      if (step.kind == Step::Kind::restart) step.a |= missing;
    }
    const Outcome outcome = RunScript(script);
    EXPECT_FALSE(outcome.Failed()) << "seed " << seed << " fails: " << outcome.failure.invariant << ", "
                                   << outcome.failure.text << '\n'
                                   << ToText(script);
    return outcome;
  }
};

TEST_F(WorldTest, NoWorldFails) {
  using Clock = std::chrono::steady_clock;
  const char* const seconds = std::getenv("VELD_SECONDS");
  const char* const seed = std::getenv("VELD_SEED");
  const auto end = Clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 3);
  // As many as a sanitizer build has time for, and then more where they are quick.
  const std::uint64_t minimum = seconds ? 1 : 150;
  std::uint64_t worlds = 0, cycles = 0;
  for (std::uint64_t next = seed ? std::strtoull(seed, nullptr, 10) : 1;
       !HasFailure() && (worlds < minimum || Clock::now() < end); ++worlds) {
    cycles += RunSeed(next++).cycles;
  }
  EXPECT_GE(cycles, 20 * minimum);
  std::cout << "worlds " << worlds << ", cycles " << cycles << ", cycles/s "
            << cycles * CLOCKS_PER_SEC / static_cast<std::uint64_t>(std::clock()) << ", failures "
            << HasFailure() << std::endl;
}

TEST_F(WorldTest, WorldsReachWhatTheyAreFor) {
  Host::seen = {};
  for (std::uint64_t seed = 1; seed <= 1500 && !HasFailure(); ++seed) RunSeed(seed);
  for (std::size_t i = 0; i <= static_cast<std::size_t>(Op::commitBuffer); ++i) {
    const auto op = static_cast<Op>(i);
    const Host::Seen& seen = Host::seen[i];
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

TEST_F(WorldTest, CleaningUpThatThrowsGoesUnnoticed) {
  for (std::uint64_t seed = 1; seed <= 300 && !HasFailure(); ++seed) RunSeed(seed, cleanUpThrows);
}

}  // namespace
}  // namespace veld_report::world
