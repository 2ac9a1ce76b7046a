// File: an open file of this system, and what the system says about files by their paths.
//
// Files belong to their owner alone from their first byte on: mode 0600 whatever the umask, or on Windows an
// access list with the owner and the system. If the superuser makes one in somebody else's folder, it belongs
// to the owner of that folder. Links aren't followed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

#include "host/platform/paths.h"

namespace veld_report::host {

// Which file a path names; another one if it was deleted and created again.
struct FileIdentity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;

  // All zeros if there is no file.
  static FileIdentity Of(const std::filesystem::path& file) noexcept;
  bool operator==(const FileIdentity&) const = default;
};

struct FileStatus {
  std::uint64_t bytes = 0;
  std::int64_t changedNs = 0;  // of its content; only for comparison
  FileIdentity identity{};
  bool isRegular = false;  // a link isn't

  // Nothing if there is no file, or it can't be looked at.
  static std::optional<FileStatus> Of(const std::filesystem::path& path) noexcept;
};

// Threads: one at a time, except for the functions that name a place in the file.
class File {
 public:
  enum class Mode {
    writeExisting,   // read and write; fails if there is none
    write,           // read and write; made if there is none
    replace,         // the same, and emptied
    makeNew,         // the same; fails if there is one
    appendExisting,  // write at the end; fails if there is none
    append,          // the same; made if there is none
  };
#if defined(_WIN32)
  using Handle = void*;
#else
  using Handle = int;
#endif

  File() = default;
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { Close(); }

  // The result holds nothing on failure, and `*error`, if it is given, says why. Not inherited by programs
  // that the application starts.
  static File Open(const std::filesystem::path& path, Mode mode, std::error_code* error = nullptr) noexcept;
  // The same, but an existing file keeps its rights, and everybody may read a new one if it is `isPublic`.
  static File OpenAsItIs(const std::filesystem::path& path, Mode mode, bool isPublic,
                         std::error_code* error = nullptr) noexcept;
  static File StandardError() noexcept;

  explicit operator bool() const { return handle_ != none; }
  void Close() noexcept;
  // Forgets the file without closing it, if somebody else has done so.
  void Abandon() noexcept { handle_ = none; }

  // Returns the number of bytes that were written; fewer than all if the disk is full or fails.
  std::size_t Write(std::string_view bytes, std::error_code* error = nullptr) noexcept;
  bool WriteAt(std::string_view bytes, std::uint64_t offset) noexcept;
  // Returns the number of bytes that were read, 0 also on failure.
  std::size_t ReadAt(std::span<char> bytes, std::uint64_t offset) const noexcept;
  bool Truncate(std::uint64_t bytes) noexcept;
  // Returns false with `*error` set if the disk didn't take everything.
  bool Sync(std::error_code* error = nullptr) noexcept;
  // Makes the file that long, with room on the disk for all of it.
  bool Reserve(std::uint64_t bytes) noexcept;
  // 0 if it isn't known.
  std::uint64_t Size() const noexcept;
  FileIdentity Identity() const noexcept;

  // Advisory, without waiting. Taken again, it changes its kind; if that fails, the former kind stays. It
  // ends with the file, and with the process however that ends.
  enum class Lock { exclusive, shared };
  // Returns false if somebody else has the lock, or with `*error` set if the file can't be locked at all.
  bool TryLock(Lock kind, std::error_code* error) noexcept;
  void Unlock() noexcept;

  Handle NativeHandle() const { return handle_; }

 private:
#if defined(_WIN32)
  static constexpr Handle none = nullptr;
#else
  static constexpr Handle none = -1;
#endif
  explicit File(Handle handle) : handle_(handle) {}

  Handle handle_ = none;
  std::optional<Lock> lock_{};
};

// Why this user can't read the file; no error if he can.
std::error_code ReadProblem(const std::filesystem::path& file) noexcept;

// What lets other users read the file, and how to end that, for a message: "(its mode is 0644); chmod 600
// it". Empty if only its owner can, apart from administrators, or if that isn't known.
std::string WhyOthersCanRead(const std::filesystem::path& file);

// Deletes a file, also one that is open (on Windows it then gives up its name at once). Returns false if it
// is still there.
bool RemoveFile(const std::filesystem::path& file) noexcept;

// Whether a file that another library makes has the rights of its folder. Elsewhere SQLite's log has those of
// the store's file.
inline constexpr bool filesTakeFoldersRights =
#if defined(_WIN32)
    true;
#else
    false;
#endif

// Makes one folder, for the owner alone. Its parent must exist.
std::error_code MakePrivateFolder(const std::filesystem::path& folder) noexcept;
// Makes the file's rights those of a file that was made here, unless another user owns it: his choice stands.
void RestrictToOwner(const std::filesystem::path& file) noexcept;
// Makes what was created in the folder last through a loss of power, if the system needs that.
void SyncFolder(const std::filesystem::path& folder) noexcept;
// What this user may still write on the disk of that folder; nothing if the system doesn't say.
std::optional<std::uint64_t> FreeBytes(const std::filesystem::path& folder) noexcept;

}  // namespace veld_report::host
