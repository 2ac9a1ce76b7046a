// Result codes in messages that a person reads.
#pragma once

#include <string>

#include "types/result_code.h"

namespace veld_report::host {

// "0x80000062 Out of space"; a code that the host has no text for gives the number alone. Throws
// std::bad_alloc.
std::string CodeText(zel::ResultCode code);

}  // namespace veld_report::host
