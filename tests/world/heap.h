// What the module does beside its calls to the host: memory that it takes from the process heap, and locks.
//
// The linker puts the functions of heap.cpp between the module's objects and malloc, free and the locks of
// the C library; operator new and delete are replaced. Everything counts only while a thread is inside the
// module, which Inside and Outside say.
#pragma once

#include <cstdint>
#include <functional>

namespace veld_report::world {

// This thread's place, for the time of one block.
class Inside {
 public:
  explicit Inside(bool inModule = true);
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
  ~Inside();

 private:
  const bool before_;
};
struct Outside : Inside {
  Outside() : Inside(false) {}
};

// Whether the module's objects are in this program. If it loads the library, the heap and the locks in there
// can't be seen.
bool ModuleIsLinked();

struct Heap {
  // Whether blocks are counted. A sanitizer has operators new and delete of its own, so under it they aren't,
  // and only malloc can fail.
  static bool Counts();
  // Blocks that are out, of everything in this program.
  static std::int64_t LiveBlocks();
  // The nth allocation inside the module from here on fails, and `onFailure` is called; 0: none.
  static void FailNth(int nth, std::function<void()> onFailure);
};

struct Locks {
  // How often this thread holds a lock of the module's.
  static int Held();
  // Whether a thread held two different ones since the last call.
  static bool TakeTwoAtOnce();
};

}  // namespace veld_report::world
