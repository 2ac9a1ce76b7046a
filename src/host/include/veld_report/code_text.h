// The text of a result code, for messages and logs.
#pragma once

#include <string>

#include "types/result_code.h"

namespace veld_report {

// "0x80000062 Out of space"; just the number if there is no text for the code. Throws std::bad_alloc.
std::string CodeText(zel::ResultCode code);

}  // namespace veld_report
