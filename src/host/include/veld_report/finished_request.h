// A completed request that was sent, or at least begun, in terms of the standard library.
#pragma once

#include <cstdint>
#include <string>

#include "types/result_code.h"

namespace veld_report {

struct FinishedRequest {
  std::string url;  // UTF-8, as in the settings
  // 0: answered with 200, and its items are gone from the queue. 0x80000071 "Invalid result": another status.
  // Any other code: no answer. In the last two cases the items stay in their queue.
  zel::ResultCode result = zel::sOk;
  std::string endpoint{};     // the url without user and password, as in EndpointStatistics
  std::uint16_t status = 0;   // of the answer; 0: there was none
  std::string text{};         // how it failed, a sentence for people; empty for an answer of 200
  std::uint64_t records = 0;  // in the request
  std::uint64_t bytes = 0;    // of these records as JSON; the body is about a third larger
};

}  // namespace veld_report
