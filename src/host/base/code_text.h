// Result codes in messages for people.
#pragma once

#include <string>

#include "types/result_code.h"

namespace veld_report::host {

// "0x80000062 Out of space"; just the number if the host has no text for the code. Throws std::bad_alloc.
std::string CodeText(zel::ResultCode code);

}  // namespace veld_report::host
