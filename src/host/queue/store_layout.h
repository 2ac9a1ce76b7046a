// The layout of a store's file: its tables, how a new file is initialised, and which files are refused.
//
// docs/store.md describes layout 3 (PRAGMA user_version is the layout's number; application_id is "vldq"). In
// the two before it each item was a row of its own; store_upgrade.h upgrades them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "host/queue/queue_positions.h"
#include "host/queue/sqlite_connection.h"
#include "host/queue/store_folder.h"

namespace veld_report::host {

inline constexpr std::int64_t storeLayoutVersion = 3;

// The names of the ledger's columns in the order of QueueLedger::All, items before bytes.
std::span<const char* const> LedgerColumns();
// Makes an empty file a store of that layout.
std::string LayoutSql(std::int64_t version);
// 0 if the file isn't a store.
std::int64_t LayoutVersion(const SqliteConnection& connection);

// The sums in a row of `queues`, and in one of `gone`.
std::int64_t SumOfQueue(std::int64_t id, std::string_view name, const QueuePositions& positions);
std::int64_t SumOfGone(std::uint64_t first, std::uint64_t count);

// A store that has to be upgraded first (store_upgrade.h).
class EarlierLayoutError : public StoreError {
 public:
  using StoreError::StoreError;
};

// Makes the open file a store if it is empty. Throws EarlierLayoutError, StoreError for a later layout, and
// SqliteError for damage, including a file that isn't a store. These files aren't changed.
void LayOutStore(SqliteConnection& connection, const std::filesystem::path& file);

}  // namespace veld_report::host
