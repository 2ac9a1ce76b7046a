// Where the module's library is when nobody says so.
#pragma once

#include <string>

namespace veld_report::host {

// The file libveld_report.so beside the running program, else the one in the folder `lib` beside the
// program's folder, else the bare name, for which the system's loader looks in its own places.
std::string FindModule();

}  // namespace veld_report::host
