// From libcurl's results to the codes of the contract.
#pragma once

#include <curl/curl.h>

#include "types/result_code.h"

namespace veld_report::host {

// Always negative but for CURLE_OK. HttpClientFactory's comment lists the codes.
zel::ResultCode CodeOf(CURLcode result);

}  // namespace veld_report::host
