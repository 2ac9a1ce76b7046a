// Reads the body of a request from its stream. All three throw HttpTransferRefused. One thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "contract/io.h"

namespace veld_report::host {

inline constexpr char unreadableBody[] = "the body of the request can't be read";

std::uint64_t BodySize(zel::IIO& body);
// The next `size` bytes.
std::string ReadBody(zel::IIO& body, std::uint64_t size);
// Back to its start.
void Rewind(zel::IIO& body);

}  // namespace veld_report::host
