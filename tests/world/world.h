// One world: the module under the simulated host, the model beside it, and a script.
#pragma once

#include <cstdint>
#include <string>

#include "tests/world/host.h"
#include "tests/world/script.h"

namespace veld_report::world {

struct Outcome {
  bool Failed() const { return !failure.invariant.empty(); }
  Failure failure;
  std::size_t step = 0;  // at which it failed; the script's size for its end
  std::uint64_t cycles = 0;
};

// Runs the script to its end or to the first failure. The same script and lie give the same outcome.
Outcome RunScript(const Script& script, Lie lie = Lie::none);

}  // namespace veld_report::world
