// A file that holds some room on the disk, to be given up when the disk is full: then acknowledgements and
// removals can still be written. It covers what the write-ahead log can hold (logPages in store_file.h): once
// the log has been written back with its help, the log's own room is used again and again.
//
// A disk that has little room from the start gets no reserve, and a store works without one.
// Threads: its store's lock guards it.
#pragma once

#include <filesystem>

namespace veld_report::host {

class DiskReserve {
 public:
  // Takes the room, or finds it taken. The file outlives the object: a next start may need it.
  explicit DiskReserve(std::filesystem::path file);

  void Release() noexcept;
  // True from Release to the Restore that succeeds: nothing should be stored that can be refused.
  bool IsGivenUp() const { return givenUp_; }
  // Takes the room again, if it isn't taken and the disk has plenty.
  void Restore() noexcept;

 private:
  const std::filesystem::path file_;
  bool held_ = false;
  bool givenUp_ = false;
};

}  // namespace veld_report::host
