// ForkGuard keeps the locks of this process from its forked children.
//
// An flock lock belongs to the open file, which a child inherits. So a long-lived child would keep a store
// locked after its process has closed it or was killed. A child therefore closes what it inherits, which
// leaves the parent's locks alone. SQLite's own locks aren't inherited, but its knowledge of them is, so a
// child can't open a store that was open when it was forked. Where processes don't fork, it does nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>

#include "host/platform/file.h"

namespace veld_report::host {

// While it lives, no other thread can fork. Threads: any.
class ForkGuard {
 public:
  ForkGuard();

  // From now on a child closes the file at once. Throws std::bad_alloc.
  void Add(const File& file);
  // Call it before the file is closed.
  void Remove(const File& file) noexcept;
  // The process that held a lock on this file when it forked this process or an ancestor, if there is one.
  std::optional<std::uint64_t> InheritedFrom(const std::filesystem::path& file) const;

 private:
  const std::unique_lock<std::mutex> lock_;
};

}  // namespace veld_report::host
