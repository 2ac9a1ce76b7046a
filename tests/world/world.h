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
  std::uint64_t cycles = 0;
  std::uint64_t troubles = 0;  // faults of the script that were met
};

// Begins the lines of a course that are steps of its script.
inline constexpr char courseMark[] = "> ";

// Runs the script to its end or to the first failure. The same script gives the same outcome. `course`: gets
// what the host sees, a line for each step, entry, call, answer and trace line.
Outcome RunScript(const Script& script, std::string* course = nullptr);

}  // namespace veld_report::world
