#include "host/queue/store_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include "host/queue/fork_guard.h"

namespace veld_report::host {
namespace {

constexpr mode_t folderMode = 0700;
constexpr mode_t fileMode = 0600;

std::string Reason(int error) { return std::generic_category().message(error); }

[[noreturn]] void FailFile(const std::filesystem::path& file, const char* action, int error) {
  const bool isRefused = error == EACCES || error == EPERM;
  throw StoreError("can't " + std::string(action) + " " + file.string() + ": " + Reason(error) +
                   (isRefused ? "; give this user the right to write in that folder, or choose another one"
                              : "; choose another one"));
}

// A umask can only have removed rights of the owner; they are restored. If the superuser looks after somebody
// else's store, he must not lock the owner out.
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

// A new folder is durable only once its parent is synced. If that isn't possible (no permission to read it),
// the folder works all the same.
void SyncFolder(const std::filesystem::path& folder) noexcept {
  const int handle = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (handle < 0) return;
  fsync(handle);
  close(handle);
}

int LockOperation(FileLock::Kind kind) {
  return (kind == FileLock::Kind::shared ? LOCK_SH : LOCK_EX) | LOCK_NB;
}

}  // namespace

int OpenPrivateFile(const std::filesystem::path& file, int flags) noexcept {
  int descriptor = -1;
  do {
    descriptor = open(file.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, fileMode);
  } while (descriptor < 0 && errno == EINTR);
  if (descriptor >= 0) SetOwnerAndMode(descriptor, file);
  return descriptor;
}

FileIdentity FileIdentity::Of(const std::filesystem::path& file) noexcept {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

bool IsSafeDomainName(std::string_view domain) {
  constexpr std::size_t maxLength = 64;
  return !domain.empty() && domain.size() <= maxLength && std::ranges::all_of(domain, [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  });
}

std::filesystem::path StoreFilePath(const std::filesystem::path& folder, std::string_view domain) {
  return folder / (std::string(domain) + ".queue");
}

void RefuseInheritedStore(const std::filesystem::path& folder) {
  const auto opener = ForkGuard().InheritedFrom(folder / storeLockName);
  if (!opener) return;
  throw StoreError("the store in " + folder.string() + " was open in process " + std::to_string(*opener) +
                   " when that forked this process; use another folder, or fork before opening this one");
}

void PrepareStoreFolder(const std::filesystem::path& folder) {
  std::error_code error;
  if (std::filesystem::is_directory(folder, error)) return;
  if (std::filesystem::exists(folder, error)) {
    throw StoreError(folder.string() + " is a file, but a store is a folder; name another path");
  }
  std::vector<std::filesystem::path> grown;  // the parents of new folders
  for (auto made = folder; !std::filesystem::exists(made, error) && made.has_parent_path();) {
    made = made.parent_path();
    grown.push_back(made);
  }
  if (folder.has_parent_path()) std::filesystem::create_directories(folder.parent_path(), error);
  if (mkdir(folder.c_str(), folderMode) != 0) {
    if (errno == EEXIST && std::filesystem::is_directory(folder, error)) return;
    FailFile(folder, "make the folder", errno);
  }
  if (chmod(folder.c_str(), folderMode) != 0) FailFile(folder, "set the permissions of", errno);
  for (const auto& each : grown) SyncFolder(each);
}

bool PreparePrivateFile(const std::filesystem::path& file) {
  const int descriptor = OpenPrivateFile(file, O_RDWR | O_CREAT | O_EXCL);
  if (descriptor >= 0) {
    close(descriptor);
    return true;
  }
  // An existing file isn't opened: closing it would end the locks that SQLite may have on it in this process.
  struct stat status {};
  if (errno != EEXIST || lstat(file.c_str(), &status) != 0) FailFile(file, "make", errno);
  if (!S_ISREG(status.st_mode)) FailFile(file, "use", EINVAL);
  if ((status.st_mode & 07777) != fileMode) {
    // Fails for a file of another owner, whose choice then stands.
    [[maybe_unused]] const int ignored = chmod(file.c_str(), fileMode);
  }
  return false;
}

FileLock::FileLock(FileLock&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), kind_(other.kind_), process_(other.process_) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  std::swap(kind_, other.kind_);
  std::swap(process_, other.process_);
  return *this;
}

FileLock::~FileLock() {
  // In a child the descriptor may be another file by now.
  if (descriptor_ < 0 || process_ != CurrentProcess()) return;
  ForkGuard guard;
  guard.Remove(descriptor_);
  // Closing alone would leave the lock to a child that the guard hasn't seen, one of clone for instance.
  flock(descriptor_, LOCK_UN);
  close(descriptor_);
}

// A full disk is no reason to fail.
void FileLock::Note(const std::string& text) const noexcept {
  if (ftruncate(descriptor_, 0) != 0) return;
  [[maybe_unused]] const ssize_t ignored = pwrite(descriptor_, text.data(), text.size(), 0);
}

FileIdentity FileLock::Identity() const noexcept {
  struct stat status {};
  if (fstat(descriptor_, &status) != 0) return {};
  return {status.st_dev, status.st_ino};
}

bool FileLock::Change(Kind kind) {
  if (flock(descriptor_, LockOperation(kind)) == 0) {
    kind_ = kind;
    return true;
  }
  // The system releases the old lock before it tries the new one.
  [[maybe_unused]] const int again = flock(descriptor_, LockOperation(kind_));
  return false;
}

FileLock FileLock::Try(const std::filesystem::path& file, Kind kind, std::string* holder) {
  ForkGuard guard;
  const int descriptor = OpenPrivateFile(file, O_RDWR | O_CREAT);
  if (descriptor < 0) FailFile(file, "open", errno);
  if (flock(descriptor, LockOperation(kind)) != 0) {
    const int error = errno;
    char text[32] = {};
    const ssize_t length = pread(descriptor, text, sizeof text - 1, 0);
    close(descriptor);
    if (error != EWOULDBLOCK) FailFile(file, "lock", error);
    if (holder) holder->assign(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    return FileLock();
  }
  try {
    guard.Add(descriptor);
  } catch (...) {
    close(descriptor);
    throw;
  }
  FileLock lock(descriptor, kind);
  lock.Note(std::to_string(getpid()));
  return lock;
}

}  // namespace veld_report::host
