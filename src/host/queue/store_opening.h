// Opens a domain's file, whatever its state: a damaged store never blocks the start.
#pragma once

#include <filesystem>
#include <memory>

#include "host/queue/clean_marker.h"
#include "host/queue/disk_reserve.h"
#include "host/queue/queue_service_options.h"
#include "host/queue/store_file.h"
#include "host/queue/store_folder.h"

namespace veld_report::host {

// Whether a damaged store is salvaged at once, or later by the caller.
enum class Salvaging { atOnce, later };

// Creates the file if there is none, initialises or upgrades it, and checks it unless `mark` vouches for it.
// A file that can't be read or fails its check is moved aside, and what can be read of it goes to a new one;
// both are traced at level 300. If that fails too, the new store starts empty, and the next start tries
// again. On a full disk the reserve is given up. `folderLock` is the caller's; a shared one is made exclusive
// for a repair. Throws StoreError for a file of a later layout and for a damaged one that other processes are
// using, and SqliteError if neither damage nor the layout is the reason.
std::unique_ptr<StoreFile> OpenStoreFile(const QueueServiceOptions& options,
                                         const std::filesystem::path& file, FileLock& folderLock,
                                         DiskReserve& reserve, CleanMarker& mark,
                                         Salvaging salvaging = Salvaging::atOnce);

}  // namespace veld_report::host
