// A completed request, in terms of the standard library.
#pragma once

#include <string>

#include "types/result_code.h"

namespace veld_report {

struct FinishedRequest {
  std::string url;  // UTF-8, as in the settings
  // 0: answered with 200, and its items are gone from the queue. 0x80000071 "Invalid result": another status.
  // Any other code: no answer. In the last two cases the items stay in their queue.
  zel::ResultCode result = zel::sOk;
};

}  // namespace veld_report
