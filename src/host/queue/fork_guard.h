// ForkGuard: keeps the locks of this process out of the processes that it forks.
//
// A lock of flock belongs to the open file, which a child inherits: a child that lives on would keep a store
// locked after its process has closed it, or has been killed. So a child closes what it inherits, which takes
// no lock from its parent. SQLite's own locks aren't inherited, but what SQLite knows of them is, so a child
// can't open a store that was open when it was forked.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <mutex>
#include <optional>

namespace veld_report::host {

// While it lives no other thread forks. Threads: any.
class ForkGuard {
 public:
  ForkGuard();

  // From here on a child closes the descriptor at once. Throws std::bad_alloc.
  void Add(int descriptor);
  // To be called before the descriptor is closed.
  void Remove(int descriptor) noexcept;
  // The process that had this file locked when it forked this process or an ancestor of it, if one had.
  std::optional<pid_t> InheritedFrom(const std::filesystem::path& file) const;

 private:
  const std::unique_lock<std::mutex> lock_;
};

}  // namespace veld_report::host
