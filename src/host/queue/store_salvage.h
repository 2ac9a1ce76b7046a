// Reads what can be read out of a damaged store into a good one.
//
// It goes through SQLite, so that the write-ahead log counts: from both ends of the items towards the damage,
// and item by item in between. Where the first page is unreadable, a copy with the first page of a new store
// is tried, as every store has its tables at the same places. The damaged file itself isn't changed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/queue/queue_ledger.h"
#include "host/queue/store_file.h"

namespace veld_report::host {

struct SalvageReport {
  std::filesystem::path source;
  ItemCount salvaged;
  // What the source's figures say was waiting and couldn't be read; nothing if they can't be read either.
  std::optional<ItemCount> lost;
};

// Moves a store's file with its log aside, to NAME.damaged-TIME, and returns that name. `nowMs`: since 1970.
// Throws StoreError if it can't be moved.
std::filesystem::path MoveStoreAside(const std::filesystem::path& file, std::int64_t nowMs);

// The files that were moved aside in place of `file`, oldest first.
std::vector<std::filesystem::path> DamagedFilesOf(const std::filesystem::path& file);
// Deletes one of them, with its log and its mark. Throws std::filesystem::filesystem_error.
void DeleteDamagedFile(const std::filesystem::path& damaged);

// One transaction on `target`: on an exception (SqliteError, StoreError) nothing of it stands. Items keep
// their tokens; figures are added to those of the target, where lost items count as removed and damaged.
// A file beside the source marks it as salvaged.
SalvageReport SalvageInto(StoreFile& target, const std::filesystem::path& source, const std::string& vfs);
bool IsSalvaged(const std::filesystem::path& source);

// One sentence for people and traces.
std::string Describe(const SalvageReport& report);

}  // namespace veld_report::host
