// Base64Encode, the base-64 text of the wire format: RFC 4648 section 4, with padding and without line
// breaks.
//
// It isn't the URL-safe alphabet that JSON Web Signature uses; see docs/wire-format.md. There is no decoder
// here: the module never reads such a text.
#pragma once

#include <cstdint>

#include "types/basic_string.h"

namespace orvel::veld_report {

// Replaces the content of `out`; its allocator stays. A count of 0 gives an empty text, and `bytes` may be
// null then. `bytes` isn't a piece of `out`. Any thread. Throws std::length_error and std::bad_alloc, with
// `out` empty.
void Base64Encode(const std::uint8_t* bytes, std::uint64_t count, zel::string* out);

}  // namespace orvel::veld_report
