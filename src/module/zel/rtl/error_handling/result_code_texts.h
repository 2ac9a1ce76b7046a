// The texts of result codes, for display. Constant UTF-16, never translated, of static lifetime.
//
// A code with the value 1 in bits 16 to 30 is a platform code and has its text in a separate table, whatever
// its sign. No code is invalid: one without a text gets a default. The lookups allocate nothing and may run
// on any thread, even during exception handling.
#pragma once

#include "types/basic_string.h"
#include "types/result_code.h"

namespace zel {

const char16_t* GeneralResultCodeText(ResultCode code);
const char16_t* PlatformResultCodeText(ResultCode code);

// The text of any code, without allocator. Throws std::bad_alloc.
wstring ResultCodeMessage(ResultCode code);

}  // namespace zel
