// CleanMarker, a note beside a store that its file needs no check at the next opening.
//
// A check reads the whole file, seconds for millions of items. The note vouches for a file that was checked
// or made once and that only SQLite has written since: either the last process closed it and it has not been
// touched, or that process ended in some other way while the machine ran on, so that all it wrote is there.
// A copied or restored file, one that somebody else has written, and one from before the machine went down
// aren't vouched for; neither is one in which damage has shown. A file of a few megabytes is checked anyway.
// Its store's lock guards it.
#pragma once

#include <filesystem>
#include <string>

namespace veld_report::host {

class CleanMarker {
 public:
  // `file`: the store's. An empty path makes a mark that does nothing.
  explicit CleanMarker(const std::filesystem::path& file);

  bool Vouches() const;
  // The file is sound and about to be written.
  void NoteOpened() noexcept;
  // The file has been closed; nobody else has it open.
  void NoteClosed() noexcept;
  // The file must be checked before it is used again.
  void Withdraw() noexcept;

 private:
  void Write(const std::string& text) noexcept;

  const std::filesystem::path file_;
  const std::filesystem::path mark_;
  bool withdrawn_ = false;
};

}  // namespace veld_report::host
