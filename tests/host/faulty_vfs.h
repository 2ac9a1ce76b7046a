// A SQLite VFS that hands everything on to the default one and fails chosen operations on the way.
//
// It is registered under the name "faulty" and counts the operations of all its files together. Syncs that
// don't fail are left out, so that sweeps over every operation stay fast.
#pragma once

#include <cstdint>

namespace veld_report::tests {

class FaultyVfs {
 public:
  enum class Operation { kNone, kRead, kWrite, kSync, kTruncate };

  static constexpr char name[] = "faulty";
  static void Register();

  // The operation of this kind with that number, from 1, fails; with `onwards` all after it as well. The
  // count starts here.
  static void FailAt(Operation operation, std::int64_t number, bool onwards);
  static void Heal();
  // How many operations have failed since FailAt.
  static std::int64_t Failures();
};

}  // namespace veld_report::tests
