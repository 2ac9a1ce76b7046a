#include "host/queue/eviction_tracker.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace veld_report::host {
namespace {

thread_local constinit EvictionTracker::Refusal lastRefusal;

// Never returns a number twice, unlike an address or a std::thread::id. That needs no order.
std::uint64_t NextNumber() {
  static constinit std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint64_t ThreadNumber() {
  thread_local const std::uint64_t number = NextNumber();
  return number;
}

}  // namespace

EvictionTracker::EvictionTracker() : store_(NextNumber()) {}

EvictionTracker::Refusal EvictionTracker::BeginCall() { return std::exchange(lastRefusal, Refusal{}); }

void EvictionTracker::NoteRefusal(const QueueState& queue, ItemCount item) {
  if (Eviction* own = FindOwn(queue)) {
    own->refused = item;
  } else {
    lastRefusal = {store_, &queue, item};
  }
}

std::optional<ItemCount> EvictionTracker::TakeRepeated(const QueueState& queue) {
  Eviction* const own = FindOwn(queue);
  return own ? std::exchange(own->refused, std::nullopt) : std::nullopt;
}

bool EvictionTracker::OpenReader(const ReaderState& reader, const QueueState& queue,
                                 const Refusal& lastCall) {
  if (lastCall.store != store_ || lastCall.queue != &queue) return false;
  evictions_.push_back({&reader, &queue, ThreadNumber(), lastCall.item});
  return true;
}

std::optional<ItemCount> EvictionTracker::CloseReader(const ReaderState& reader) {
  const auto found = std::ranges::find(evictions_, &reader, &Eviction::reader);
  if (found == evictions_.end()) return std::nullopt;
  const std::optional<ItemCount> refused = found->refused;
  evictions_.erase(found);
  return refused;
}

bool EvictionTracker::IsEvicting(const ReaderState& reader) const { return Find(reader) != nullptr; }

bool EvictionTracker::EvictsInThisCall(const ReaderState& reader) const {
  const Eviction* const eviction = Find(reader);
  return eviction && eviction->thread == ThreadNumber();
}

EvictionTracker::Eviction* EvictionTracker::FindOwn(const QueueState& queue) {
  if (evictions_.empty()) return nullptr;
  const auto own = std::ranges::find_if(evictions_, [&](const Eviction& eviction) {
    return eviction.queue == &queue && eviction.thread == ThreadNumber();
  });
  return own == evictions_.end() ? nullptr : &*own;
}

const EvictionTracker::Eviction* EvictionTracker::Find(const ReaderState& reader) const {
  const auto found = std::ranges::find(evictions_, &reader, &Eviction::reader);
  return found == evictions_.end() ? nullptr : &*found;
}

}  // namespace veld_report::host
