// A SQLite VFS that hands everything on to the default one, fails chosen operations on the way, and lets an
// observer watch.
//
// It is registered under the name "faulty" and counts the operations of all its files together. Syncs that
// don't fail are left out, so that sweeps over every operation stay fast.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string_view>

struct sqlite3_file;

namespace veld_report::tests {

class FaultyVfs {
 public:
  // map and shmLock are of the shared memory beside the log.
  enum class Operation { none, read, write, sync, truncate, open, remove, access, size, lock, map, shmLock };

  // Something that has been done to a file, or is about to be for remove. `file`: null for remove. `offset`:
  // of write; the new size of truncate. `text`: the bytes of write; the path for open and remove, empty for a
  // temporary file.
  enum class Event { open, write, truncate, sync, remove };
  using Observer =
      std::function<void(Event, const sqlite3_file* file, std::int64_t offset, std::string_view text)>;

  static constexpr char name[] = "faulty";
  static void Register();
  // Whether files for which no VFS is named get this one. Not while a file is open.
  static void SetDefault(bool isDefault);

  // The operation of this kind with that number, from 1, fails; with `onwards` all after it as well. The
  // count starts here.
  static void FailAt(Operation operation, std::int64_t at, bool onwards);
  static void Heal() { failing = Operation::none; }

  static inline std::atomic<Operation> failing{Operation::none};
  // How many operations have failed since FailAt.
  static inline std::atomic<std::int64_t> failures{0};
  // May be empty; to be changed only while no file is open. Hears of what succeeds only.
  static inline Observer observer{};
};

}  // namespace veld_report::tests
