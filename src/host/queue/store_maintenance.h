// Maintenance of the stores of a folder that no process is using: check, salvage, compact.
//
// All three lock the folder and throw StoreError if it is in use or doesn't exist.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "contract/tracer.h"
#include "host/queue/store_folder.h"
#include "host/queue/store_salvage.h"
#include "types/ref.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

struct StoreCheck {
  std::string domain;
  std::vector<std::string> findings;  // sentences; none for a good store
  ItemCount waiting;
  std::uint64_t fileBytes = 0;  // file and log
  bool IsGood() const { return findings.empty(); }
};

struct StoreCompaction {
  std::string domain;
  std::uint64_t bytesBefore = 0;
  std::uint64_t bytesAfter = 0;
};

// Reads every store whole and compares its figures with its items. Changes nothing, even if it finds damage.
std::vector<StoreCheck> CheckStore(const std::filesystem::path& folder);

// Replaces what is damaged, as opening does, and tries again to salvage earlier damaged files that haven't
// been salvaged yet.
std::vector<SalvageReport> SalvageStore(const std::filesystem::path& folder,
                                        zel::Ref<zel::ITracer> tracer = {});

// Rewrites every store without its free space. Refuses a damaged one: salvage it first.
std::vector<StoreCompaction> CompactStore(const std::filesystem::path& folder);

// Locks a folder for one process, or for all that share it. The error says who has it. Throws StoreError.
FileLock LockStoreFolder(const std::filesystem::path& folder, FileLock::Kind kind);
// The domains that have a file in the folder.
std::vector<std::string> StoredDomains(const std::filesystem::path& folder);

}  // namespace veld_report::host
