// Finds the module's library if no path is given.
#pragma once

#include <string>

namespace veld_report::host {

// Looks for libveld_report.so next to the file with this code (the program, or a shared library) and next to
// the program, in the folders `veld_report` and `../lib` there, and where packages install it. If it isn't in
// any of these, returns the bare name, which the system's loader looks for in its own places.
std::string FindModule();

}  // namespace veld_report::host
