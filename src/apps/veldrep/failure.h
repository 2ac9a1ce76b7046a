// Failure ends a command of veldrep. In a header of its own, so that its users needn't include the option
// parser.
#pragma once

#include <stdexcept>
#include <string>

namespace veld_report::app {

// Ends the command with exit code 1. what() is "what: why", as it appears on stderr after "veldrep: ".
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& what, const std::string& why) : std::runtime_error(what + ": " + why) {}
};

}  // namespace veld_report::app
