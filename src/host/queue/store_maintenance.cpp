#include "host/queue/store_maintenance.h"

#include <algorithm>

#include "host/platform/file.h"
#include "host/queue/block_scan.h"
#include "host/queue/store_folder.h"
#include "host/queue/store_layout.h"
#include "host/queue/store_opening.h"

namespace veld_report::host {
namespace {

constexpr std::size_t maxFindings = 20;

FileLock LockExistingFolder(const std::filesystem::path& folder) {
  if (!IsFolder(folder)) {
    throw StoreError("there is no folder " + Utf8(folder) + "; name the folder of the store");
  }
  return LockStoreFolder(folder, FileLock::Kind::exclusive);
}

std::uint64_t SizeOnDisk(const std::filesystem::path& file) {
  std::uint64_t total = 0;
  for (const char* suffix : {"", "-wal"}) {
    if (const auto status = FileStatus::Of(WithEnding(file, suffix))) total += status->bytes;
  }
  return total;
}

void CompareFigures(StoreFile& file, StoreCheck* check) {
  for (const QueueRow& row : file.LoadQueues()) {
    const ItemCount found = ScanQueue(file.Connection(), row.id, row.positions).intact;
    check->waiting += found;
    if (found != row.ledger.waiting) {
      check->findings.push_back("queue " + row.name + " should hold " +
                                std::to_string(row.ledger.waiting.items) + " items but holds " +
                                std::to_string(found.items));
    }
    if (!row.ledger.IsBalanced())
      check->findings.push_back("the ledger of queue " + row.name + " isn't balanced");
  }
  const std::int64_t strays =
      file.Connection().QueryInteger("SELECT count(*) FROM blocks WHERE key>>" +
                                     std::to_string(positionBits) + " NOT IN (SELECT id FROM queues)");
  if (strays != 0) check->findings.push_back(std::to_string(strays) + " blocks belong to no queue");
}

StoreCheck CheckOne(const std::filesystem::path& file, const std::string& domain) {
  StoreCheck check;
  check.domain = domain;
  check.fileBytes = SizeOnDisk(file);
  try {
    StoreFile store(file, {.inspectOnly = true});
    SqliteStatement lines(store.Connection(), "PRAGMA integrity_check(" + std::to_string(maxFindings) + ")");
    while (lines.Step()) {
      if (lines.Text(0) != "ok") check.findings.emplace_back(lines.Text(0));
    }
    CompareFigures(store, &check);
  } catch (const std::exception& error) {
    check.findings.emplace_back(error.what());
  }
  return check;
}

}  // namespace

std::vector<std::string> StoredDomains(const std::filesystem::path& folder) {
  std::vector<std::string> domains;
  for (const auto& entry : EntriesOf(folder)) {
    const std::string domain = Utf8(entry.stem());
    if (entry == StoreFilePath(folder, domain) && IsSafeDomainName(domain)) domains.push_back(domain);
  }
  std::ranges::sort(domains);
  return domains;
}

FileLock LockStoreFolder(const std::filesystem::path& folder, FileLock::Kind kind) {
  std::string holder;
  FileLock lock = FileLock::Try(folder / storeLockName, kind, &holder);
  if (!lock && holder == std::to_string(ProcessId())) {
    throw StoreError(
        "the store in " + Utf8(folder) +
        " is in use by this process: it is open there, or still being closed; close it first and "
        "wait until that has ended, or choose another folder");
  }
  if (!lock) {
    throw StoreError("the store in " + Utf8(folder) + " is in use by process " +
                     (holder.empty() ? "(unknown)" : holder) +
                     "; end that process first, or choose another folder");
  }
  return lock;
}

std::vector<StoreCheck> CheckStore(const std::filesystem::path& folder) {
  const FileLock lock = LockExistingFolder(folder);
  std::vector<StoreCheck> checks;
  for (const std::string& domain : StoredDomains(folder)) {
    const auto file = StoreFilePath(folder, domain);
    StoreCheck check = CheckOne(file, domain);
    for (const auto& damaged : DamagedFilesOf(file)) {
      if (!IsSalvaged(damaged)) check.findings.push_back(Utf8(damaged) + " hasn't been salvaged yet");
    }
    checks.push_back(std::move(check));
  }
  return checks;
}

std::vector<SalvageReport> SalvageStore(const std::filesystem::path& folder, zel::Ref<zel::ITracer> tracer) {
  FileLock lock = LockExistingFolder(folder);
  QueueServiceOptions options;
  options.folder = folder;
  options.tracer = std::move(tracer);
  std::vector<SalvageReport> reports;
  for (const std::string& domain : StoredDomains(folder)) {
    const auto file = StoreFilePath(folder, domain);
    DiskReserve reserve(WithEnding(file, ".reserve"));
    CleanMarker mark(file);
    const auto store = OpenStoreFile(options, file, lock, reserve, mark, Salvaging::later);
    for (const auto& damaged : DamagedFilesOf(file)) {
      if (!IsSalvaged(damaged)) reports.push_back(SalvageInto(*store, damaged, {}));
    }
  }
  return reports;
}

std::vector<StoreCompaction> CompactStore(const std::filesystem::path& folder) {
  const FileLock lock = LockExistingFolder(folder);
  std::vector<StoreCompaction> results;
  for (const std::string& domain : StoredDomains(folder)) {
    const auto file = StoreFilePath(folder, domain);
    StoreCompaction result{domain, SizeOnDisk(file), 0};
    try {
      StoreFile store(file, {});
      store.QuickCheck();
      store.Compact(true);
    } catch (const SqliteError& error) {
      throw StoreError("the store of " + domain + " can't be compacted: " + error.what() +
                       (error.IsDamage() ? "; salvage it first" : "; make room on its disk and try again"));
    }
    result.bytesAfter = SizeOnDisk(file);
    results.push_back(result);
  }
  return results;
}

}  // namespace veld_report::host
