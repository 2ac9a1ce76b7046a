#include "host/queue/block_scan.h"

#include "host/queue/item_key.h"

namespace veld_report::host {

QueueScan ScanQueue(const SqliteConnection& connection, std::int64_t queueId, const QueuePositions& positions,
                    const std::function<void(const BlockItem&)>& onItem) {
  QueueScan scan;
  RangeSet there;
  SqliteStatement blocks(connection, "SELECT key, data FROM blocks WHERE key BETWEEN ?1 AND ?2 ORDER BY key");
  blocks.Bind(1, static_cast<std::int64_t>(KeyOf(queueId, 0)));
  blocks.Bind(2, static_cast<std::int64_t>(KeyOf(queueId, maxPosition)));
  while (blocks.Step()) {
    auto block = BlockReader::Open(static_cast<std::uint64_t>(blocks.Integer(0)), blocks.Blob(1));
    if (!block) continue;
    BlockItem item;
    while (block->Next(&item)) {
      const std::uint64_t position = PositionOf(item.key);
      if (!positions.HasItem(position) || there.Contains(position) || !item.IsIntact()) continue;
      there.Add(position);
      scan.intact += ItemCount{1, static_cast<std::int64_t>(item.data.size())};
      if (onItem) onItem(item);
    }
  }
  there.Add(positions.gone);
  scan.damaged = there.Missing(positions.front + 1, positions.last);
  return scan;
}

}  // namespace veld_report::host
