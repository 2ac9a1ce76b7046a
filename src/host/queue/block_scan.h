// Reads all blocks of a queue, to find out what of it is there.
#pragma once

#include <cstdint>
#include <functional>

#include "host/queue/block_codec.h"
#include "host/queue/queue_positions.h"
#include "host/queue/sqlite_connection.h"
#include "veld_report/queue_ledger.h"

namespace veld_report::host {

struct QueueScan {
  ItemCount intact;
  RangeSet damaged;  // positions that should hold an item, and don't hold a whole one
};

// `onItem`, if there is one, is called for each intact item, oldest first. Throws SqliteError for what SQLite
// can't read.
QueueScan ScanQueue(const SqliteConnection& connection, std::int64_t queueId, const QueuePositions& positions,
                    const std::function<void(const BlockItem&)>& onItem = {});

}  // namespace veld_report::host
