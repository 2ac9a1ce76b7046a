// CleanMarker: a note next to a store which says that its file needs no check at the next opening.
//
// A check reads the whole file, which takes seconds for millions of items. The note vouches for a file that
// was once checked or created and that only SQLite has written since. Either the last process closed it and
// nobody has touched it, or that process ended in some other way while the machine kept running, so that
// everything it wrote is there. It doesn't vouch for a copied or restored file, one that somebody else has
// written, one from before the machine went down, or one that has shown damage. A file of a few megabytes is
// checked anyway. Its store's lock guards it.
#pragma once

#include <filesystem>
#include <string>

namespace veld_report::host {

class CleanMarker {
 public:
  // `file`: the store's. With an empty path the marker does nothing.
  explicit CleanMarker(const std::filesystem::path& file);

  bool Vouches() const;
  // The file is good and is about to be written.
  void NoteOpened() noexcept;
  // The file was closed, and nobody else has it open.
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
