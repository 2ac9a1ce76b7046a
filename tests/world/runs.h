// Worlds from seeds, one after the other.
#pragma once

#include <optional>
#include <string>

#include "tests/world/world.h"

namespace veld_report::world {

struct Progress {
  std::uint64_t seed = 1;  // of the next world, or of the one that failed
  std::uint64_t worlds = 0, cycles = 0;
};

// Goes on from `progress` until that many worlds have run, the time is up or one fails; returns the failure.
// If the process dies in a world, or a world doesn't end, stderr says which.
std::optional<Failure> RunWorlds(Progress& progress, double seconds, std::uint64_t worlds = UINT64_MAX);

}  // namespace veld_report::world
