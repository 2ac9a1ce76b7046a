#include "tests/world/runs.h"

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>

// Of the sanitizers, which end a process without a signal.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace veld_report::world {
namespace {

constexpr unsigned worldLimitSeconds = 60;
volatile std::uint64_t seedNow = 0;

void SayWhere() {
  char text[64];
  const int length =
      std::snprintf(text, sizeof text, "world: in seed %llu\n", static_cast<unsigned long long>(seedNow));
  static_cast<void>(!write(STDERR_FILENO, text, static_cast<std::size_t>(length)));
}

void OnDeath(int signal) {
  SayWhere();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

std::optional<Failure> RunWorlds(Progress& progress, double seconds, std::uint64_t worlds) {
  for (const int signal : {SIGSEGV, SIGABRT, SIGALRM}) std::signal(signal, OnDeath);
  if (__sanitizer_set_death_callback) __sanitizer_set_death_callback(SayWhere);
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  std::optional<Failure> failure;
  for (; !failure && progress.worlds < worlds && Clock::now() < end; ++progress.seed) {
    alarm(worldLimitSeconds);
    seedNow = progress.seed;
    const Outcome outcome = RunScript(MakeScript(progress.seed));
    ++progress.worlds;
    progress.cycles += outcome.cycles;
    if (outcome.Failed()) failure = outcome.failure;
  }
  alarm(0);
  if (failure) --progress.seed;
  return failure;
}

}  // namespace veld_report::world
