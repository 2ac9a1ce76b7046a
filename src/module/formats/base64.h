// Base64Encode, the base64 text of the wire format: RFC 4648 section 4, with padding and without line breaks.
//
// It isn't the URL-safe alphabet of JSON Web Signature; see docs/wire-format.md. There is no decoder here,
// since the module never reads such a text.
#pragma once

#include <cstdint>

#include "types/basic_string.h"

namespace orvel::veld_report {

// Replaces the content of `out`; its allocator stays. If `count` is 0, the text is empty and `bytes` may be
// null. `bytes` must not be part of `out`. Any thread. Throws std::length_error and std::bad_alloc, with
// `out` empty.
void Base64Encode(const std::uint8_t* bytes, std::uint64_t count, zel::string* out);

}  // namespace orvel::veld_report
