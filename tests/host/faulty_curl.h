// libcurl's memory, failing, through the layer that the library offers for it (curl_global_init_mem).
//
// What its system calls answer isn't made to fail: our client sees the same codes of libcurl's then. The
// process can have libcurl initialised only once, so Install comes before anything that uses it.
#pragma once

#include <atomic>
#include <cstdint>

namespace veld_report::tests {

class FaultyCurl {
 public:
  static void Install();
  // The nth allocation from here on fails, with `onwards` all after it as well.
  static void FailNth(int nth, bool onwards);
  static void Heal();

  static inline std::atomic<int> failures{0};             // since FailNth
  static inline std::atomic<std::int64_t> liveBlocks{0};  // that libcurl holds
};

}  // namespace veld_report::tests
