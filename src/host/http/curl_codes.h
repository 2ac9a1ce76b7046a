// Maps libcurl's results to the codes of the contract.
#pragma once

#include <curl/curl.h>

#include "types/result_code.h"

namespace veld_report::host {

// Always negative, except for CURLE_OK. The codes are listed at HttpClientFactory.
zel::ResultCode CodeOf(CURLcode result);
// What to do about it, to follow libcurl's own sentence: "; check ...". Empty if there is nothing to add.
const char* RemedyOf(CURLcode result);

}  // namespace veld_report::host
