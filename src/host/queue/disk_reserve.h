// A file that reserves some room on the disk, to be given up when the disk is full, so that acknowledgements
// and removals can still be written. It covers the maximum size of the write-ahead log (logPages in
// store_file.h): once that has been written back with its help, the log reuses its own room.
//
// If the disk has little room from the start, there is no reserve, and the store works without one. A reserve
// that was given up leaves an empty file: a process that starts on the full disk must not fill its room
// either. Threads: its store's lock guards it.
#pragma once

#include <filesystem>

namespace veld_report::host {

class DiskReserve {
 public:
  // Takes the room, unless it is taken already. The file outlives the object: the next start may need it.
  explicit DiskReserve(std::filesystem::path file);

  void Release() noexcept;
  // True from Release to a successful Restore: nothing should be stored that can be refused.
  bool IsGivenUp() const { return givenUp_; }
  // Takes the room again, if it isn't taken and the disk has plenty.
  void Restore() noexcept;

 private:
  const std::filesystem::path file_;
  bool held_ = false;
  bool givenUp_ = false;
};

}  // namespace veld_report::host
