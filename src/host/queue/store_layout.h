// The layout of a store's file: how a new one is made, how an earlier one is brought up to date, and which
// files are refused.
//
// Layout 2 (PRAGMA user_version is the layout's number; application_id is "vldq"):
//   queues  one row a queue name ever used: id, name, present, and the ledger's figures, two columns each
//   items   token, which AUTOINCREMENT never gives twice, queue id, time of Push in milliseconds since 1970,
//           and the bytes; indexed by queue
// Layout 1 had no figures for expired and damaged items.
// A change of the layout only appends columns and tables: salvaging relies on the order of what was there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "host/queue/sqlite_connection.h"

namespace veld_report::host {

inline constexpr std::int64_t storeLayoutVersion = 2;

// Names of the ledger's columns in the order of QueueLedger::All, items before bytes.
std::span<const char* const> LedgerColumns();

// Makes the file that `connection` has open a store of the present layout. An earlier one is copied first, to
// EarlierLayoutCopy. Throws StoreError for a later one, which stays as it is, and SqliteError for damage, as
// which a file counts that isn't a store at all.
void LayOutStore(SqliteConnection& connection, const std::filesystem::path& file);

// Where the copy of a store of an earlier layout is kept until the first clean close after the upgrade.
std::filesystem::path EarlierLayoutCopy(const std::filesystem::path& file, std::int64_t version);
void RemoveEarlierLayoutCopies(const std::filesystem::path& file) noexcept;

}  // namespace veld_report::host
