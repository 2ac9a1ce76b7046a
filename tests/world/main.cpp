// world: runs worlds from seeds, and shrinks what fails; scripts/world builds and starts it.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "tests/world/child.h"
#include "tests/world/shrink.h"

namespace veld_report::world {
namespace {

constexpr char usage[] =
    "usage: world [--seconds N] [--worlds N] [--seed S]\n"
    "       world --replay FILE\n"
    "Runs worlds of seeds S, S+1, ... for N seconds (10) or N worlds. A failure is shrunk, and its script\n"
    "printed, which --replay takes. The last line is the sum; cycles/s are those of a second of CPU time.\n";
constexpr int mostFailures = 3;

struct Options {
  double seconds = 10;
  std::uint64_t worlds = UINT64_MAX;
  std::uint64_t seed = 1;
  std::string replay;
};

bool Parse(int count, char** words, Options& options) {
  for (int i = 1; i < count; i += 2) {
    const std::string name = words[i];
    if (i + 1 == count) return false;
    char* end = nullptr;
    const std::uint64_t number = std::strtoull(words[i + 1], &end, 10);
    if (name == "--replay") {
      options.replay = words[i + 1];
      continue;
    }
    if (*end != '\0' || end == words[i + 1]) return false;
    if (name == "--seconds") {
      options.seconds = static_cast<double>(number);
    } else if (name == "--worlds") {
      options.worlds = number;
      options.seconds = 1e9;
    } else if (name == "--seed") {
      options.seed = number;
    } else {
      return false;
    }
  }
  return true;
}

void ShowFailure(std::uint64_t seed) {
  std::string text;
  Script script = MakeScript(seed);
  const std::string broken = RunInChild(script, Lie::none, &text);
  std::cout << "seed " << seed << " fails";
  if (broken.empty()) {
    std::cout << ", but not alone: it leans on a world before it\n";
    return;
  }
  script = Shrink(std::move(script),
                  [&](const Script& shorter) { return RunInChild(shorter, Lie::none, nullptr) == broken; });
  RunInChild(script, Lie::none, &text);
  std::cout << ": " << broken << ", " << text << "\n# the shortest script that fails so:\n"
            << ToText(script) << std::flush;
}

int ShowSum(const Progress& progress, int failures) {
  const double rate =
      progress.cpuSeconds > 0 ? static_cast<double>(progress.cycles) / progress.cpuSeconds : 0;
  std::cout << "worlds " << progress.worlds << ", cycles " << progress.cycles << ", cycles/s "
            << std::llround(rate) << ", failures " << failures << std::endl;
  return failures == 0 ? 0 : 1;
}

int Replay(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("world: can't read '" + file + "'");
  std::stringstream text;
  text << in.rdbuf();
  std::string told;
  const std::string broken = RunInChild(FromText(text.str()), Lie::none, &told);
  if (!broken.empty()) std::cout << broken << ", " << told << '\n';
  Progress one{};
  one.worlds = 1;
  return ShowSum(one, broken.empty() ? 0 : 1);
}

int Run(const Options& options) {
  if (!options.replay.empty()) return Replay(options.replay);
  Progress* progress = MakeProgress();
  progress->seed = options.seed;
  const double deadline = SteadySeconds() + options.seconds;
  int failures = 0;
  while (!RunWorlds(progress, deadline, options.worlds)) {
    ShowFailure(progress->seed++);
    if (++failures == mostFailures) break;
  }
  return ShowSum(*progress, failures);
}

}  // namespace
}  // namespace veld_report::world

int main(int count, char** words) {
  using namespace veld_report::world;
  Options options;
  if (!Parse(count, words, options)) {
    std::cerr << usage;
    return 2;
  }
  try {
    return Run(options);
  } catch (const std::exception& exception) {
    std::cerr << exception.what() << '\n';
    return 2;
  }
}
