// A file that holds some room on the disk, to be given up when the disk is full: then acknowledgements and
// removals can still be written, and what they free can be used again.
//
// Best effort: a disk with little room gets no reserve, and a store works without one.
// Threads: its store's lock guards it.
#pragma once

#include <filesystem>

namespace veld_report::host {

class DiskReserve {
 public:
  // Takes the room, or finds it taken. The file outlives the object: a next start may need it.
  explicit DiskReserve(std::filesystem::path file);

  void Release() noexcept;
  // Takes the room again, if it isn't taken and the disk has plenty.
  void Restore() noexcept;

 private:
  const std::filesystem::path file_;
  bool held_ = false;
};

}  // namespace veld_report::host
