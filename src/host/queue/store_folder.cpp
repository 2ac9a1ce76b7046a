#include "host/queue/store_folder.h"

#include <algorithm>
#include <array>
#include <system_error>
#include <vector>

#include "host/platform/fork_guard.h"

namespace veld_report::host {
namespace {

[[noreturn]] void FailFile(const std::filesystem::path& file, const char* action, std::error_code error) {
  const bool isRefused = error == std::errc::permission_denied || error == std::errc::operation_not_permitted;
  throw StoreError("can't " + std::string(action) + " " + Utf8(file) + ": " + error.message() +
                   (isRefused ? "; give this user the right to write in that folder, or choose another one"
                              : "; choose another one"));
}

}  // namespace

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
  throw StoreError("the store in " + Utf8(folder) + " was open in process " + std::to_string(*opener) +
                   " when that forked this process; use another folder, or fork before opening this one");
}

void PrepareStoreFolder(const std::filesystem::path& folder) {
  if (IsFolder(folder)) return;
  if (FileStatus::Of(folder)) {
    throw StoreError(Utf8(folder) + " is a file, but a store is a folder; name another path");
  }
  std::vector<std::filesystem::path> grown;  // the parents of new folders
  // The root may be missing too, as the drive of a path on Windows.
  for (auto made = folder; !FileStatus::Of(made) && made.has_parent_path() && made != made.root_path();) {
    made = made.parent_path();
    grown.push_back(made);
  }
  if (folder.has_parent_path()) static_cast<void>(MakeFolders(folder.parent_path()));
  if (const std::error_code failed = MakePrivateFolder(folder)) {
    if (failed == std::errc::file_exists && IsFolder(folder)) return;
    FailFile(folder, "make the folder", failed);
  }
  // A new folder lasts only once its parent is synced.
  for (const auto& each : grown) SyncFolder(each);
}

bool PreparePrivateFile(const std::filesystem::path& file) {
  std::error_code error;
  if (File::Open(file, File::Mode::makeNew, &error)) return true;
  // An existing file isn't opened: closing it would end the locks that SQLite may have on it in this process.
  const auto status = FileStatus::Of(file);
  if (error != std::errc::file_exists || !status) FailFile(file, "make", error);
  if (!status->isRegular) FailFile(file, "use", std::make_error_code(std::errc::invalid_argument));
  RestrictToOwner(file);
  return false;
}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  std::swap(file_, other.file_);
  std::swap(process_, other.process_);
  return *this;
}

FileLock::~FileLock() {
  // A child has closed what it inherited; the handle may be another file's by now.
  if (!file_) return;
  if (process_ != CurrentProcess()) {
    file_.Abandon();
    return;
  }
  ForkGuard guard;
  guard.Remove(file_);
  // Closing alone would leave the lock to a child that the guard hasn't seen, one of clone for instance.
  file_.Unlock();
  file_.Close();
}

// A full disk is no reason to fail.
void FileLock::Note(const std::string& text) noexcept {
  if (file_.Truncate(0)) file_.WriteAt(text, 0);
}

FileLock FileLock::Try(const std::filesystem::path& path, Kind kind, std::string* holder) {
  ForkGuard guard;
  std::error_code error;
  File file = File::Open(path, File::Mode::write, &error);
  if (!file) FailFile(path, "open", error);
  if (!file.TryLock(kind, &error)) {
    if (error) FailFile(path, "lock", error);
    std::array<char, 32> text{};
    const std::size_t length = file.ReadAt(text, 0);
    if (holder) holder->assign(text.data(), length);
    return FileLock();
  }
  guard.Add(file);
  FileLock lock(std::move(file));
  lock.Note(std::to_string(ProcessId()));
  return lock;
}

}  // namespace veld_report::host
