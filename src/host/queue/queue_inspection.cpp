// Inspection of a store; see queue_store.h.
#include <chrono>
#include <thread>

#include "host/queue/queue_store.h"
#include "host/queue/store_opening.h"

namespace veld_report::host {
namespace {

// So long the figures wait for the file; it is written in groups, which take less on a disk that works.
constexpr std::chrono::milliseconds refreshTime{100};
constexpr std::chrono::milliseconds refreshStep{1};
// Memory for reading ahead.
constexpr std::size_t oneItem = 1;
constexpr std::size_t manyItems = std::size_t{64} * 1024;

}  // namespace

std::vector<QueueInfo> QueueStore::ListQueues() {
  const std::lock_guard lock(mutex_);
  Flush();
  Refresh();
  const std::int64_t nowMs = time_.NowMs();
  std::vector<QueueInfo> result;
  for (auto& [name, queue] : queues_) {
    if (!queue.stored.IsPresent()) continue;
    const ItemRow* const oldest = writer_.NextInFile(queue.stored, 0, oneItem);
    const ItemCount waiting = queue.stored.Ledger().waiting;
    QueueInfo info{name, waiting.items, waiting.bytes, std::nullopt};
    if (oldest) info.oldestAgeMs = nowMs - oldest->enqueuedMs;
    writer_.EndReading(queue.stored);
    result.push_back(std::move(info));
  }
  return result;
}

std::vector<PeekedItem> QueueStore::Peek(const std::string& name, std::size_t count) {
  const std::lock_guard lock(mutex_);
  Flush();
  Refresh();
  std::vector<PeekedItem> result;
  const auto found = queues_.find(name);
  if (found == queues_.end()) return result;
  BufferedQueue& queue = found->second.stored;
  std::uint64_t after = 0;
  while (result.size() < count) {
    const ItemRow* const row = writer_.NextInFile(queue, after, count == 1 ? oneItem : manyItems);
    if (!row) break;
    after = row->token;
    result.push_back(
        {row->token, time_.NowMs() - row->enqueuedMs, std::string(row->data.begin(), row->data.end())});
  }
  writer_.EndReading(queue);
  return result;
}

std::map<std::string, std::uint64_t> QueueStore::LastTokens() {
  const std::lock_guard lock(mutex_);
  Flush();
  Refresh();
  std::map<std::string, std::uint64_t> result;
  for (const auto& [name, queue] : queues_) result.emplace(name, queue.stored.LastToken());
  return result;
}

ItemCount QueueStore::TotalWaiting() {
  RefreshUnlessBusy();
  const std::lock_guard lock(figuresMutex_);
  ItemCount total;
  for (const auto& [name, queue] : queues_) total += queue.stored.Ledger().waiting;
  return total;
}

std::map<std::string, QueueLedger> QueueStore::Ledgers() {
  RefreshUnlessBusy();
  const std::lock_guard lock(figuresMutex_);
  std::map<std::string, QueueLedger> result;
  for (const auto& [name, queue] : queues_) {
    if (!(queue.stored.Ledger() == QueueLedger{})) result.emplace(name, queue.stored.Ledger());
  }
  return result;
}

void QueueStore::RefreshUnlessBusy() {
  if (!options_.shared && !options_.inspectOnly) return;
  const auto last = std::chrono::steady_clock::now() + refreshTime;
  std::unique_lock lock(mutex_, std::try_to_lock);
  while (!lock && std::chrono::steady_clock::now() < last) {
    std::this_thread::sleep_for(refreshStep);
    lock = std::unique_lock(mutex_, std::try_to_lock);
  }
  if (lock) Refresh();
}

bool QueueStore::Compact(bool rebuild) {
  const std::lock_guard lock(mutex_);
  if (!Flush()) return false;
  file_->Compact(rebuild);
  return true;
}

}  // namespace veld_report::host
