// Upgrades a store of an earlier layout.
#pragma once

#include <filesystem>
#include <string>

namespace veld_report::host {

// Keeps a copy, FILE.layout-N, fills a new store from that, and puts it in the file's place by a single
// transaction, so that the file is at any moment what it was or a whole store of the current layout. Takes
// room for three times the file, and a few megabytes of memory. No other process may use the file. Throws
// StoreError if there is no room, and SqliteError for damage; then the file is as it was.
void UpgradeStore(const std::filesystem::path& file, const std::string& vfs);

// What an upgrade leaves behind: the copies, and its work if it was interrupted.
void RemoveTracesOfUpgrades(const std::filesystem::path& file) noexcept;

}  // namespace veld_report::host
