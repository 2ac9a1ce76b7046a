// Where the module's library is when nobody says so.
#pragma once

#include <string>

namespace veld_report::host {

// Looks for libveld_report.so beside the file that holds this code (the program, or a shared library) and
// beside the program, in the folders `veld_report` and `../lib` there, and where packages put it. Where there
// is none it answers the bare name, for which the system's loader looks in its own places.
std::string FindModule();

}  // namespace veld_report::host
