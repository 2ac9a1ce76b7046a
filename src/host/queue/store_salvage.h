// Copies what can be read of a damaged store to a good one.
//
// It reads through SQLite, so that the write-ahead log counts, and steps over the pages that can't be read.
// Of a block, it takes the items whose sums are right. If the first page is unreadable, it tries a copy with
// the first page of a new store, as every store has its tables at the same places. The damaged file itself
// isn't changed. It also reads the layouts before blocks.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "host/queue/store_file.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

struct SalvageReport {
  std::filesystem::path source;
  ItemCount salvaged;
  // What was waiting by the source's figures and couldn't be read; nothing if the figures can't be read
  // either.
  std::optional<ItemCount> lost;
};

// Moves a store's file and its log aside, to NAME.damaged-TIME, and returns that name. `nowMs`: since 1970.
// Throws StoreError if it can't be moved.
std::filesystem::path MoveStoreAside(const std::filesystem::path& file, std::int64_t nowMs);

// The files that were moved aside from `file`, oldest first.
std::vector<std::filesystem::path> DamagedFilesOf(const std::filesystem::path& file);
// Deletes one of these, with its log and its marker. Throws StoreError.
void DeleteDamagedFile(const std::filesystem::path& damaged);

// One transaction on `target`: on an exception (SqliteError, StoreError) it is rolled back. Items keep their
// positions. Figures are added to those of the target, where lost items count as removed and damaged. A file
// next to the source marks it as salvaged.
SalvageReport SalvageInto(StoreFile& target, const std::filesystem::path& source, const std::string& vfs);
// The same for an intact file of any layout: throws SqliteError if something can't be read.
void CopyInto(StoreFile& target, SqliteConnection& source);
bool IsSalvaged(const std::filesystem::path& source);

// One sentence, for people and traces.
std::string Describe(const SalvageReport& report);

}  // namespace veld_report::host
