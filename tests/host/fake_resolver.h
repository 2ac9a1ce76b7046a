// Names of the top domain "test" for a test program that links this: its getaddrinfo goes before the
// system's, so that no look-up leaves the machine.
//   hangs.test   no answer while a HangingResolver lives
//   any other    not known
#pragma once

namespace veld_report::tests {

class HangingResolver {
 public:
  HangingResolver();
  HangingResolver(const HangingResolver&) = delete;
  HangingResolver& operator=(const HangingResolver&) = delete;
  // Lets every look-up go and waits until they have gone.
  ~HangingResolver();
  bool WaitForCalls(int count) const;
};

}  // namespace veld_report::tests
