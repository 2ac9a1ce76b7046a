#include "tests/world/child.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace veld_report::world {
namespace {

constexpr unsigned worldLimitSeconds = 60;
constexpr int failedCode = 3;

struct Told {
  char invariant[32];
  char text[4000];
};

void* MakeShared(std::size_t size) {
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("world: no memory to share with a child");
  return memory;
}

// The exit code of a child that runs `work`; -1 if it didn't come to its end.
template <class Work>
int InChild(Work&& work) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("world: no process can be made");
  if (child == 0) {
    alarm(worldLimitSeconds);
    _exit(work());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Progress* MakeProgress() { return static_cast<Progress*>(MakeShared(sizeof(Progress))); }

std::string RunInChild(const Script& script, Lie lie, std::string* text) {
  static auto* told = static_cast<Told*>(MakeShared(sizeof(Told)));
  *told = {};
  const int code = InChild([&] {
    // A sanitizer's report is wanted once, not for each try of a search.
    if (!text) static_cast<void>(!std::freopen("/dev/null", "w", stderr));
    const Outcome outcome = RunScript(script, lie);
    const std::string at = "step " + std::to_string(outcome.step + 1) + ": " + outcome.failure.text;
    std::strncpy(told->invariant, outcome.failure.invariant.c_str(), sizeof told->invariant - 1);
    std::strncpy(told->text, at.c_str(), sizeof told->text - 1);
    return outcome.Failed() ? failedCode : 0;
  });
  if (code == 0) return {};
  if (text)
    *text = code == failedCode ? told->text : "the process ended, or the world didn't within a minute";
  return code == failedCode ? told->invariant : crash;
}

bool RunWorlds(Progress* progress, double deadline, std::uint64_t mostWorlds) {
  const double before = progress->cpuSeconds;
  const int code = InChild([&] {
    for (; progress->worlds < mostWorlds && SteadySeconds() < deadline; ++progress->seed) {
      alarm(worldLimitSeconds);
      const Outcome outcome = RunScript(MakeScript(progress->seed));
      ++progress->worlds;
      progress->cycles += outcome.cycles;
      progress->cpuSeconds = before + static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
      if (outcome.Failed()) return failedCode;
    }
    return 0;
  });
  return code == 0;
}

}  // namespace veld_report::world
