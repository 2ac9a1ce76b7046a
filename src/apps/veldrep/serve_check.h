// What --check-config of veldrep serve does.
#pragma once

#include "apps/veldrep/serve_options.h"

namespace veld_report::app {

// Checks what can be checked without listening, contacting others or changing a file. Prints "good", or one
// sentence for each thing that is wrong. Returns the exit code that serve would end with.
int CheckServe(const ServeOptions& given);

}  // namespace veld_report::app
