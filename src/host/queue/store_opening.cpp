#include "host/queue/store_opening.h"

#include <chrono>
#include <string>
#include <thread>

#include "host/base/write_trace.h"
#include "host/queue/store_layout.h"
#include "host/queue/store_salvage.h"
#include "host/queue/store_upgrade.h"

namespace veld_report::host {
namespace {

// How long processes that share a folder wait for each other when opening.
constexpr std::chrono::seconds openingTime{15};
constexpr std::chrono::milliseconds openingStep{5};
constexpr std::size_t keptDamagedFiles = 4;

StoreFile::Settings FileSettings(const QueueServiceOptions& options) {
  return {.syncEveryCommit = options.syncEveryCommit,
          .secureDelete = options.secureDelete,
          .inspectOnly = options.inspectOnly,
          .vfs = options.vfs,
          // A custom VFS is only called on its owner's threads.
          .logThread = !options.inspectOnly && options.vfs.empty()};
}

void Say(const QueueServiceOptions& options, const std::string& line) {
  WriteTrace(options.tracer.Get(), failureLevel, "store\t" + line);
}

// Only one process at a time creates, upgrades or repairs a file.
FileLock LockOpening(const std::filesystem::path& file) {
  const auto lockFile = file.parent_path() / storeOpeningName;
  const auto deadline = std::chrono::steady_clock::now() + openingTime;
  while (true) {
    std::string holder;
    FileLock lock = FileLock::Try(lockFile, FileLock::Kind::exclusive, &holder);
    if (lock) return lock;
    if (std::chrono::steady_clock::now() > deadline) {
      throw StoreError("process " + holder + " has been opening the store " + Utf8(file) +
                       " for too long; end that process");
    }
    std::this_thread::sleep_for(openingStep);
  }
}

std::unique_ptr<StoreFile> OpenUpgraded(const QueueServiceOptions& options, const std::filesystem::path& file,
                                        FileLock& folderLock) {
  try {
    return std::make_unique<StoreFile>(file, FileSettings(options));
  } catch (const EarlierLayoutError&) {
    if (options.shared && !folderLock.Change(FileLock::Kind::exclusive)) {
      throw StoreError(
          "the store " + Utf8(file) +
          " has an earlier layout and other processes use it; end them, and the next start upgrades it");
    }
  }
  UpgradeStore(file, options.vfs);
  if (options.shared) folderLock.Change(FileLock::Kind::shared);
  return std::make_unique<StoreFile>(file, FileSettings(options));
}

std::unique_ptr<StoreFile> OpenChecked(const QueueServiceOptions& options, const std::filesystem::path& file,
                                       FileLock& folderLock, const CleanMarker& mark) {
  // Before SQLite moves the log's content into the file.
  const bool check = options.checkAtOpen && !mark.Vouches();
  auto opened = OpenUpgraded(options, file, folderLock);
  if (check) opened->QuickCheck();
  opened->LoadQueues();
  return opened;
}

// Returns nothing if the file is damaged; then `*damage` says how.
std::unique_ptr<StoreFile> TryOpen(const QueueServiceOptions& options, const std::filesystem::path& file,
                                   FileLock& folderLock, DiskReserve& reserve, const CleanMarker& mark,
                                   std::string* damage) {
  for (bool again = false;; again = true) {
    try {
      return OpenChecked(options, file, folderLock, mark);
    } catch (const SqliteError& error) {
      if (again && !error.IsDamage()) throw;
      if (again || error.IsCertainDamage()) {
        *damage = error.what();
        return nullptr;
      }
      // A second read may succeed, and even opening needs some room.
      if (error.IsNoRoom()) reserve.Release();
    }
  }
}

std::unique_ptr<StoreFile> Replace(const QueueServiceOptions& options, const std::filesystem::path& file,
                                   const std::string& damage) {
  Say(options, Utf8(file) + " is damaged (" + damage + ") and is replaced");
  const std::int64_t nowMs = options.machine->CalendarMs();
  MoveStoreAside(file, nowMs);
  PreparePrivateFile(file);
  auto fresh = std::make_unique<StoreFile>(file, FileSettings(options));
  // Above every token of the old store, even if that can't give its last ones.
  fresh->BeginAfter(static_cast<std::uint64_t>(nowMs));
  return fresh;
}

std::unique_ptr<StoreFile> ReplaceAlone(const QueueServiceOptions& options, const std::filesystem::path& file,
                                        const std::string& damage, FileLock& folderLock) {
  if (!options.shared) return Replace(options, file, damage);
  if (!folderLock.Change(FileLock::Kind::exclusive)) {
    throw StoreError("the store " + Utf8(file) + " is damaged (" + damage +
                     ") and other processes use it; end them, and the next start repairs it");
  }
  auto replaced = Replace(options, file, damage);
  folderLock.Change(FileLock::Kind::shared);
  return replaced;
}

// Including what an earlier start couldn't salvage, for lack of room for instance.
void SalvageDamagedFiles(const QueueServiceOptions& options, const std::filesystem::path& file,
                         StoreFile& target) {
  for (const auto& damaged : DamagedFilesOf(file)) {
    if (IsSalvaged(damaged)) continue;
    try {
      const SalvageReport report = SalvageInto(target, damaged, options.vfs);
      Say(options, Describe(report));
      if (options.onLoss && report.lost != ItemCount{}) {
        options.onLoss({}, LossReason::damaged, report.lost.value_or(ItemCount{}), Describe(report));
      }
    } catch (const std::exception& error) {
      Say(options, Utf8(damaged) + " can't be salvaged now (" + error.what() +
                       "); the next start tries again, or run veldrep store salvage");
    }
  }
}

// Each is as large as a store, so a disk that fails again and again would fill up.
void DeleteOldDamagedFiles(const QueueServiceOptions& options, const std::filesystem::path& file) {
  auto salvaged = DamagedFilesOf(file);
  std::erase_if(salvaged, [](const auto& damaged) { return !IsSalvaged(damaged); });
  for (std::size_t i = 0; i + keptDamagedFiles < salvaged.size(); ++i) {
    try {
      DeleteDamagedFile(salvaged[i]);
      Say(options, Utf8(salvaged[i]) + " is deleted; the last " + std::to_string(keptDamagedFiles) +
                       " damaged stores are kept");
    } catch (const StoreError& error) {
      Say(options, error.what());
    }
  }
}

}  // namespace

std::unique_ptr<StoreFile> OpenStoreFile(const QueueServiceOptions& options,
                                         const std::filesystem::path& file, FileLock& folderLock,
                                         DiskReserve& reserve, CleanMarker& mark, Salvaging salvaging) {
  if (options.inspectOnly) return std::make_unique<StoreFile>(file, FileSettings(options));
  FileLock opening;
  if (options.shared) opening = LockOpening(file);
  PreparePrivateFile(file);
  std::string damage;
  auto store = TryOpen(options, file, folderLock, reserve, mark, &damage);
  if (!store) store = ReplaceAlone(options, file, damage, folderLock);
  mark.NoteOpened();
  if (salvaging == Salvaging::later) return store;
  SalvageDamagedFiles(options, file, *store);
  DeleteOldDamagedFiles(options, file);
  return store;
}

}  // namespace veld_report::host
