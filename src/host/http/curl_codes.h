// Maps libcurl's results to the codes of the contract and to sentences.
#pragma once

#include <curl/curl.h>

#include <string>

#include "types/result_code.h"

namespace veld_report::host {

// Always negative, except for CURLE_OK. The codes are listed at HttpClientFactory.
zel::ResultCode CodeOf(CURLcode result);
// What has failed, libcurl's own words in parentheses and, if there is something, what to do about it:
// "the server can't be reached (Failed to connect to ...)". `own`: libcurl's text; empty: its usual one.
std::string SentenceOf(CURLcode result, const std::string& own);

}  // namespace veld_report::host
