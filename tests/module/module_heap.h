// Counts and fails what the module takes from the process heap, told by the address of the caller: malloc and
// operator new of this program stand in for the library's. Not under a sanitizer, which has a heap of its
// own.
#pragma once

#include <cstddef>

namespace veld_report::tests {

class ModuleHeap {
 public:
  static bool Available();
  // Counts from 0 again, and the nth allocation of the library with this address in it fails; 0 for none.
  static void Begin(const void* inLibrary, int failNth);
  // Allocations since Begin.
  static int Allocations();
  // Blocks that the library has taken since Begin and nobody has freed.
  static int LiveBlocks();
  static void End();
};

}  // namespace veld_report::tests
