// What libcurl takes from outside, failing: its memory, and its system calls.
//
// Memory goes through the layer that the library offers (curl_global_init_mem). For system calls this program
// has functions of its own that stand before those of the C library and tell libcurl by the address of the
// caller; everybody else is handed on. Names of the top domain "test" lead to 127.0.0.1. The process can have
// libcurl initialised only once, so Install comes before anything that uses it.
#pragma once

#include <cstdint>

namespace veld_report::tests {

class FaultyCurl {
 public:
  enum class Kind { memory, calls };

  static void Install();
  // The nth of this kind from here on fails, with `onwards` all behind it as well.
  static void FailNth(Kind kind, int nth, bool onwards);
  static void Heal();
  // How many have failed since FailNth.
  static int Failures();
  static const char* FirstFailed();
  // Blocks that libcurl holds.
  static std::int64_t LiveBlocks();
  // Sockets that libcurl has open.
  static int Descriptors();
};

}  // namespace veld_report::tests
