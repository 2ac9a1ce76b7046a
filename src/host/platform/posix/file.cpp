#include "host/platform/file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

namespace veld_report::host {
namespace {

constexpr mode_t folderMode = 0700;
constexpr mode_t fileMode = 0600;
constexpr mode_t publicMode = 0644;

void Set(std::error_code* error, int number) noexcept {
  if (error) *error = std::error_code(number, std::generic_category());
}

FileIdentity IdentityOf(const struct stat& status) noexcept { return {status.st_dev, status.st_ino}; }

// A umask can only have removed rights of the owner; they are restored. If the superuser looks after somebody
// else's folder, he must not lock the owner out.
void SetOwnerAndMode(int descriptor, const std::filesystem::path& file) noexcept {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return;
  struct stat folder {};
  if (geteuid() == 0 && stat(file.parent_path().c_str(), &folder) == 0 &&
      (folder.st_uid != status.st_uid || folder.st_gid != status.st_gid)) {
    [[maybe_unused]] const int ignored = fchown(descriptor, folder.st_uid, folder.st_gid);
  }
  if ((status.st_mode & 07777) == fileMode) return;
  // Fails for a file of another owner, whose choice then stands.
  [[maybe_unused]] const int ignored = fchmod(descriptor, fileMode);
}

int Operation(File::Lock kind) noexcept { return (kind == File::Lock::shared ? LOCK_SH : LOCK_EX) | LOCK_NB; }

int FlagsOf(File::Mode mode) noexcept {
  switch (mode) {
    case File::Mode::writeExisting:
      return O_RDWR;
    case File::Mode::write:
      return O_RDWR | O_CREAT;
    case File::Mode::replace:
      return O_RDWR | O_CREAT | O_TRUNC;
    case File::Mode::makeNew:
      return O_RDWR | O_CREAT | O_EXCL;
    case File::Mode::appendExisting:
      return O_WRONLY | O_APPEND;
    case File::Mode::append:
      return O_WRONLY | O_APPEND | O_CREAT;
  }
  return O_RDONLY;
}

int OpenDescriptor(const std::filesystem::path& file, int flags, mode_t mode,
                   std::error_code* error) noexcept {
  int descriptor = -1;
  do {
    descriptor = open(file.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode);
  } while (descriptor < 0 && errno == EINTR);
  Set(error, descriptor < 0 ? errno : 0);
  return descriptor;
}

}  // namespace

FileIdentity FileIdentity::Of(const std::filesystem::path& file) noexcept {
  struct stat status {};
  return stat(file.c_str(), &status) == 0 ? IdentityOf(status) : FileIdentity{};
}

std::optional<FileStatus> FileStatus::Of(const std::filesystem::path& path) noexcept {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return std::nullopt;
  return FileStatus{static_cast<std::uint64_t>(status.st_size),
                    std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec,
                    IdentityOf(status), S_ISREG(status.st_mode)};
}

File::File(File&& other) noexcept : handle_(std::exchange(other.handle_, none)), lock_(other.lock_) {}

File& File::operator=(File&& other) noexcept {
  std::swap(handle_, other.handle_);
  std::swap(lock_, other.lock_);
  return *this;
}

File File::Open(const std::filesystem::path& path, Mode mode, std::error_code* error) noexcept {
  const int descriptor = OpenDescriptor(path, FlagsOf(mode), fileMode, error);
  if (descriptor >= 0) SetOwnerAndMode(descriptor, path);
  return File(descriptor);
}

File File::OpenAsItIs(const std::filesystem::path& path, Mode mode, bool isPublic,
                      std::error_code* error) noexcept {
  return File(OpenDescriptor(path, FlagsOf(mode), isPublic ? publicMode : fileMode, error));
}

File File::StandardError() noexcept { return File(STDERR_FILENO); }

void File::Close() noexcept {
  if (handle_ != none) close(std::exchange(handle_, none));
}

std::size_t File::Write(std::string_view bytes, std::error_code* error) noexcept {
  std::size_t done = 0;
  Set(error, 0);
  while (done < bytes.size()) {
    const ssize_t written = write(handle_, bytes.data() + done, bytes.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) Set(error, errno);
    if (written <= 0) break;
    done += static_cast<std::size_t>(written);
  }
  return done;
}

bool File::WriteAt(std::string_view bytes, std::uint64_t offset) noexcept {
  return pwrite(handle_, bytes.data(), bytes.size(), static_cast<off_t>(offset)) ==
         static_cast<ssize_t>(bytes.size());
}

std::size_t File::ReadAt(std::span<char> bytes, std::uint64_t offset) const noexcept {
  const ssize_t length = pread(handle_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
  return length < 0 ? 0 : static_cast<std::size_t>(length);
}

bool File::Truncate(std::uint64_t bytes) noexcept {
  return ftruncate(handle_, static_cast<off_t>(bytes)) == 0;
}

bool File::Sync(std::error_code* error) noexcept {
  const bool synced = fsync(handle_) == 0;
  Set(error, synced ? 0 : errno);
  return synced;
}

bool File::Reserve(std::uint64_t bytes) noexcept {
  return posix_fallocate(handle_, 0, static_cast<off_t>(bytes)) == 0;
}

std::uint64_t File::Size() const noexcept {
  struct stat status {};
  return fstat(handle_, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

FileIdentity File::Identity() const noexcept {
  struct stat status {};
  return fstat(handle_, &status) == 0 ? IdentityOf(status) : FileIdentity{};
}

bool File::TryLock(Lock kind, std::error_code* error) noexcept {
  if (flock(handle_, Operation(kind)) == 0) {
    lock_ = kind;
    Set(error, 0);
    return true;
  }
  Set(error, errno == EWOULDBLOCK ? 0 : errno);
  // The system has released the former lock before it tried the new one.
  if (lock_ && flock(handle_, Operation(*lock_)) != 0) lock_.reset();
  return false;
}

void File::Unlock() noexcept {
  flock(handle_, LOCK_UN);
  lock_.reset();
}

std::error_code ReadProblem(const std::filesystem::path& file) noexcept {
  return access(file.c_str(), R_OK) == 0 ? std::error_code()
                                         : std::error_code(errno, std::generic_category());
}

std::string WhyOthersCanRead(const std::filesystem::path& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0 || (status.st_mode & (S_IRGRP | S_IROTH)) == 0) return {};
  char text[48];
  std::snprintf(text, sizeof text, "(its mode is %04o); chmod 600 it",
                static_cast<unsigned>(status.st_mode & 07777));
  return text;
}

bool RemoveFile(const std::filesystem::path& file) noexcept {
  return unlink(file.c_str()) == 0 || errno == ENOENT;
}

std::error_code MakePrivateFolder(const std::filesystem::path& folder) noexcept {
  // The umask may have removed rights of the owner.
  const bool made = mkdir(folder.c_str(), folderMode) == 0 && chmod(folder.c_str(), folderMode) == 0;
  return made ? std::error_code() : std::error_code(errno, std::generic_category());
}

void RestrictToOwner(const std::filesystem::path& file) noexcept {
  struct stat status {};
  if (lstat(file.c_str(), &status) != 0 || (status.st_mode & 07777) == fileMode) return;
  [[maybe_unused]] const int ignored = chmod(file.c_str(), fileMode);
}

// If that isn't possible (no permission to read it), the folder works all the same.
void SyncFolder(const std::filesystem::path& folder) noexcept {
  const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle < 0) return;
  fsync(handle);
  close(handle);
}

std::optional<std::uint64_t> FreeBytes(const std::filesystem::path& folder) noexcept {
  struct statvfs disk {};
  if (statvfs(folder.c_str(), &disk) != 0) return std::nullopt;
  return std::uint64_t{disk.f_bavail} * disk.f_frsize;
}

}  // namespace veld_report::host
