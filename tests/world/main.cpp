// world: runs worlds from seeds, or one from a file; scripts/world builds and starts it.
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include "tests/common/files.h"
#include "tests/world/runs.h"

namespace veld_report::world {
namespace {

constexpr char usage[] =
    "usage: world [--seconds N] [--worlds N] [--seed S]\n"
    "       world --replay FILE\n"
    "Runs worlds of seeds S, S+1, ... for N seconds (10) or N worlds. The script of a world that fails is\n"
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
    const bool isNumber = *end == '\0' && end != words[i + 1];
    if (name == "--replay") {
      options.replay = words[i + 1];
    } else if (name == "--seconds" && isNumber) {
      options.seconds = static_cast<double>(number);
    } else if (name == "--worlds" && isNumber) {
      options.worlds = number;
      options.seconds = 1e9;
    } else if (name == "--seed" && isNumber) {
      options.seed = number;
    } else {
      return false;
    }
  }
  return true;
}

int Replay(const std::string& file) {
  std::string course;
  const Outcome outcome = RunScript(FromText(tests::ReadFile(file)), &course);
  std::cout << course << outcome.failure.invariant << ' ' << outcome.failure.text << std::endl;
  return outcome.Failed() ? 1 : 0;
}

int Run(const Options& options) {
  if (!options.replay.empty()) return Replay(options.replay);
  Progress progress{.seed = options.seed};
  int failures = 0;
  while (const auto failure = RunWorlds(progress, options.seconds, options.worlds)) {
    std::cout << "seed " << progress.seed << " fails: " << failure->invariant << ", " << failure->text << '\n'
              << ToText(MakeScript(progress.seed)) << std::flush;
    ++progress.seed;
    if (++failures == mostFailures) break;
  }
  const double cpuSeconds = static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
  std::cout << "worlds " << progress.worlds << ", cycles " << progress.cycles << ", cycles/s "
            << std::llround(static_cast<double>(progress.cycles) / cpuSeconds) << ", failures " << failures
            << std::endl;
  return failures == 0 ? 0 : 1;
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
