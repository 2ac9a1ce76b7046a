// Looks for the shortest script that still fails.
#pragma once

#include <functional>

#include "tests/world/script.h"

namespace veld_report::world {

// Leaves out stretches of steps, then single steps, then makes numbers small, as long as `fails` says so; it
// is asked at most `mostTries` times. `fails` holds for `script`.
Script Shrink(Script script, const std::function<bool(const Script&)>& fails, int mostTries = 3000);

}  // namespace veld_report::world
