// Runs worlds in processes of their own, so that a module that crashes or hangs is one more failure.
#pragma once

#include <string>

#include "tests/world/world.h"

namespace veld_report::world {

// What a run came to: the invariant that broke, or `crash`; empty for none.
inline constexpr char crash[] = "crash or hang";

// Runs the script in a child. `text` receives what the failure told, with the step; null: a child without
// stderr.
std::string RunInChild(const Script& script, Lie lie, std::string* text);

// How far a run of many worlds has come, in memory that a child shares with its parent.
struct Progress {
  std::uint64_t seed;  // of the world in progress
  std::uint64_t worlds;
  std::uint64_t cycles;
  double cpuSeconds;
};
// Runs the worlds of seeds from `progress->seed` on in a child, until `deadline` (of the steady clock, in
// seconds), `mostWorlds` or a failure. True if none failed; else `progress->seed` is the one that did.
bool RunWorlds(Progress* progress, double deadline, std::uint64_t mostWorlds);
// Zero, and shared with children; lives to the end of the process.
Progress* MakeProgress();
double SteadySeconds();

}  // namespace veld_report::world
