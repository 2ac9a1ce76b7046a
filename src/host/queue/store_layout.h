// The layout of a store's file: how a new file is initialised, how an earlier layout is upgraded, and which
// files are refused.
//
// Layout 2 (PRAGMA user_version is the layout's number; application_id is "vldq"):
//   queues  one row per queue name ever used: id, name, present, and the ledger's figures, two columns each
//   items   token, which AUTOINCREMENT never reuses, queue id, time of Push in milliseconds since 1970,
//           and the bytes; indexed by queue
// Layout 1 had no figures for expired and damaged items.
// A change of the layout only appends columns and tables: salvaging relies on the order of the existing ones.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "host/queue/sqlite_connection.h"

namespace veld_report::host {

inline constexpr std::int64_t storeLayoutVersion = 2;

// The names of the ledger's columns in the order of QueueLedger::All, items before bytes.
std::span<const char* const> LedgerColumns();

// Makes the open file a store of the current layout. A store of an earlier layout is first copied to
// EarlierLayoutCopy. Throws StoreError for a later layout, which isn't changed, and SqliteError for damage,
// including a file that isn't a store.
void LayOutStore(SqliteConnection& connection, const std::filesystem::path& file);

// The copy of a store of an earlier layout, kept until the first clean close after the upgrade.
std::filesystem::path EarlierLayoutCopy(const std::filesystem::path& file, std::int64_t version);
void RemoveEarlierLayoutCopies(const std::filesystem::path& file) noexcept;

}  // namespace veld_report::host
