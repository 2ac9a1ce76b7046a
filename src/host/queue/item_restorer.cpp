#include "host/queue/item_restorer.h"

#include <algorithm>

namespace veld_report::host {
namespace {

constexpr std::size_t blockBytes = std::size_t{32} * 1024;
// Of all queues together. If more queues come in turn than have room, their blocks become smaller.
constexpr std::size_t heldBytes = std::size_t{8} * 1024 * 1024;

RangeSet CoveredPositions(const SqliteConnection& connection, std::int64_t queueId) {
  RangeSet covered;
  SqliteStatement blocks(connection, "SELECT key, data FROM blocks WHERE key BETWEEN ?1 AND ?2 ORDER BY key");
  blocks.Bind(1, static_cast<std::int64_t>(KeyOf(queueId, 0)));
  blocks.Bind(2, static_cast<std::int64_t>(KeyOf(queueId, maxPosition)));
  while (blocks.Step()) {
    const auto key = static_cast<std::uint64_t>(blocks.Integer(0));
    const auto block = BlockReader::Open(key, blocks.Blob(1));
    covered.Add(PositionOf(key), block ? PositionOf(block->LastKey()) : PositionOf(key));
  }
  return covered;
}

}  // namespace

ItemRestorer::Queue& ItemRestorer::Open(const std::string& name) {
  Queue& queue = queues_.emplace_back();
  queue.row = target_.AddQueue(name);
  queue.covered = CoveredPositions(target_.Connection(), queue.row.id);
  return queue;
}

bool ItemRestorer::Add(Queue& queue, std::uint64_t position, std::int64_t enqueuedMs,
                       std::span<const std::uint8_t> data) {
  if (position == 0 || position > maxPosition) return false;
  if (queue.covered.Contains(position) || queue.restored.Contains(position)) return false;
  const bool follows = position == queue.first + queue.block.Count();
  // A large item stands alone.
  if (!follows || queue.block.Bytes() + data.size() > blockBytes) Write(queue);
  if (queue.block.Empty()) queue.first = position;
  const std::size_t before = queue.block.Bytes();
  queue.block.Add(enqueuedMs, data);
  held_ += queue.block.Bytes() - before;
  queue.restored.Add(position);
  queue.count += ItemCount{1, static_cast<std::int64_t>(data.size())};
  if (held_ >= heldBytes) {
    for (Queue& each : queues_) Write(each);
  }
  return true;
}

void ItemRestorer::Write(Queue& queue) {
  if (queue.block.Empty()) return;
  target_.AddBlock(KeyOf(queue.row.id, queue.first), queue.block.Items());
  held_ -= queue.block.Bytes();
  queue.block.Clear();
}

void ItemRestorer::Close(Queue& queue, std::uint64_t last, bool present, const QueueLedger& change) {
  Write(queue);
  const QueuePositions& before = queue.row.positions;
  RangeSet items = before.gone.Missing(before.front + 1, before.last);
  items.Add(queue.restored);
  QueuePositions after;
  after.last = std::max(before.last, std::min(last, maxPosition));
  after.front = after.last;
  if (!items.Empty()) {
    after.last = std::max(after.last, items.Ranges().back().last);
    after.front = items.Ranges().front().first - 1;
    after.gone = items.Missing(after.front + 1, after.last);
  }
  target_.ReplaceGone(queue.row.id, before.gone, after.gone);
  target_.UpdateQueue(queue.row.id, queue.row.name, after, present, change);
}

}  // namespace veld_report::host
