// The application's own headers of each request.
#pragma once

#include <string_view>

#include "host/http/http_client.h"

namespace veld_report::host {

// True for a line that ends neither itself nor the headers early.
bool IsHeaderLine(std::string_view line);

// Throws std::invalid_argument with a sentence if a header isn't valid, or is one that the client sets.
void CheckOwnHeaders(const HttpClientOptions& options);

}  // namespace veld_report::host
