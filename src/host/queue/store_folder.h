// The folder of a store: its permissions, its lock, and its file names.
//
// A folder that is created here is accessible to its owner only. An existing one keeps its permissions, which
// may be deliberate. Every file is its owner's (platform/file.h).
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "host/platform/file.h"
#include "host/platform/process.h"

namespace veld_report::host {

// A store that can't be used. The text is a sentence for people: what, where, and what to do.
class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// 1 to 64 of A-Z a-z 0-9 _ - : a valid file name on every system, and one that can't leave the folder.
bool IsSafeDomainName(std::string_view domain);

// The file of a domain. Its companion files have this name and a suffix.
std::filesystem::path StoreFilePath(const std::filesystem::path& folder, std::string_view domain);

// Creates the folder if there is none. Throws StoreError.
void PrepareStoreFolder(const std::filesystem::path& folder);

// The file that is locked while a store is open.
inline constexpr char storeLockName[] = "store.lock";
// The file that is locked while a process is opening a shared store.
inline constexpr char storeOpeningName[] = "store.opening";

// Throws StoreError if the store was open in the process that this one was forked from.
void RefuseInheritedStore(const std::filesystem::path& folder);

// Creates an empty file if there is none, otherwise removes the rights of everybody but its owner.
// Returns true if the file is new. Throws StoreError.
bool PreparePrivateFile(const std::filesystem::path& file);

// An advisory lock on a file. It ends with the object, and with the process however that ends. A forked child
// doesn't share it.
class FileLock {
 public:
  using Kind = File::Lock;

  FileLock() = default;
  FileLock(FileLock&& other) noexcept = default;
  FileLock& operator=(FileLock&& other) noexcept;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  ~FileLock();

  // Tries to lock, without waiting, and writes the process id to the file for people. If somebody else has
  // the lock, `*holder` receives the file's content, and the result holds nothing. Throws StoreError if the
  // file can't be created.
  static FileLock Try(const std::filesystem::path& file, Kind kind, std::string* holder);

  // Tries to change the kind of the lock, without waiting. If somebody else has it, returns false with the
  // lock unchanged.
  bool Change(Kind kind) { return file_.TryLock(kind, nullptr); }

  // Replaces the content of the locked file, for those who try to lock it. A failure changes nothing else.
  void Note(const std::string& text) noexcept;
  // Of the locked file.
  FileIdentity Identity() const noexcept { return file_.Identity(); }

  explicit operator bool() const { return static_cast<bool>(file_); }

 private:
  explicit FileLock(File file) : file_(std::move(file)) {}

  File file_;
  std::uint64_t process_ = CurrentProcess();
};

}  // namespace veld_report::host
