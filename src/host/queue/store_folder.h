// The folder of a store: its permissions, its lock, and the names in it.
//
// A folder that is made here is the owner's alone (0700); one that exists keeps its permissions, since it may
// be somebody's choice. Every file is made with 0600, whatever the umask, before its first byte is written.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

namespace veld_report::host {

// A store that can't be used. The text is a sentence for people: what, where, and what to do.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// 1 to 64 of A-Z a-z 0-9 _ - : a name that is one file name on every system and can't leave the folder.
bool IsSafeDomainName(std::string_view domain);

// The file of a domain. Its companions have this name and a suffix.
std::filesystem::path StoreFilePath(const std::filesystem::path& folder, std::string_view domain);

// Makes the folder if it isn't there. Throws StoreError.
void PrepareStoreFolder(const std::filesystem::path& folder);

// Opens a file without following links, making it with mode 0600 if `flags` have O_CREAT. Returns a
// descriptor, or -1 with errno set.
int OpenPrivateFile(const std::filesystem::path& file, int flags) noexcept;

// Makes an empty file with mode 0600 if there is none, and takes group's and others' rights from one that is.
// Returns whether the file is new. Throws StoreError.
bool PreparePrivateFile(const std::filesystem::path& file);

// An advisory lock on a file. It ends with the object, and with the process however that ends.
class FileLock {
 public:
  enum class Kind { exclusive, shared };

  FileLock() = default;
  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock();

  // Takes the lock without waiting, and writes the process's number into the file for people. `*holder` gets
  // what stands there if somebody else has the lock. Returns an object that holds nothing in that case.
  // Throws StoreError if the file can't be made.
  static FileLock Try(const std::filesystem::path& file, Kind kind, std::string* holder);

  // Takes the lock in another way, without waiting. Returns false, with the lock as it was before, if
  // somebody else has it.
  bool Change(Kind kind);

  explicit operator bool() const { return descriptor_ >= 0; }

 private:
  int descriptor_ = -1;
  Kind kind_ = Kind::exclusive;
};

}  // namespace veld_report::host
