// Counts and fails what the module takes from the process heap, told by the address of the caller: malloc and
// operator new of this program stand in for the library's. Not under a sanitizer, which has a heap of its
// own.
#pragma once

namespace veld_report::tests {

class ModuleHeap {
 public:
  static bool Available();
  // From here on the allocations of the library with this address in it are watched, and none fails.
  static void Watch(const void* inLibrary);
  // Counts from 0 again, and the nth allocation fails; with `onwards` all behind it do too.
  static void FailNth(int nth, bool onwards);
  static void StopFailing();
  // Allocations since FailNth.
  static int Allocations();
  // Blocks that the library has taken since Watch and nobody has freed.
  static int LiveBlocks();
  static void End();
};

}  // namespace veld_report::tests
