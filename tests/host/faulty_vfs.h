// A SQLite VFS that hands everything on to the default one and fails chosen operations on the way.
//
// It is registered under the name "faulty" and counts the operations of all its files together. Syncs that
// don't fail are left out, so that sweeps over every operation stay fast.
#pragma once

#include <atomic>
#include <cstdint>

namespace veld_report::tests {

class FaultyVfs {
 public:
  enum class Operation { kNone, kRead, kWrite, kSync, kTruncate };

  static constexpr char name[] = "faulty";
  static void Register();

  // The operation of this kind with that number, from 1, fails; with `onwards` all after it as well. The
  // count starts here.
  static void FailAt(Operation operation, std::int64_t at, bool onwards);
  static void Heal() { failing = Operation::kNone; }

  static inline std::atomic<Operation> failing{Operation::kNone};
  // How many operations have failed since FailAt.
  static inline std::atomic<std::int64_t> failures{0};
};

}  // namespace veld_report::tests
