// EvictionTracker tells an eviction from a delivery: an Ack looks the same for both, so it looks at who
// calls.
//
// A producer whose Push is refused as out of space makes room by opening a reader as its very next call to
// the service, on the same thread, and acknowledging through it on that thread. So:
//   - a reader opened on a thread whose last call to the store was a Push on the same queue that answered out
//     of space is an evicting reader, and what it acknowledges on that thread counts as evicted;
//   - everything that any other reader acknowledges counts as delivered;
//   - a refused item counts as rejected at once. A further Push on the same queue and thread while the
//     evicting reader lives is the same item again, so the earlier rejection is taken back first. Without an
//     evicting reader each refused Push is a loss of its own.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "veld_report/queue_ledger.h"

namespace veld_report::host {

struct QueueState;   // host/queue/queue_store.h
struct ReaderState;  // host/queue/queue_store.h

// One of these for each store. BeginCall may run on any thread; the other operations run under the store's
// lock.
class EvictionTracker {
 public:
  // The refusal with which the calling thread's last call ended; without a store if it ended otherwise.
  struct Refusal {
    std::uint64_t store = 0;
    const QueueState* queue = nullptr;
    ItemCount item;
  };

  EvictionTracker();

  // Every operation of a store begins with it, so that only the very next call sees a refusal.
  static Refusal BeginCall();

  // The Push in progress answers that there is no room for `item`.
  void NoteRefusal(const QueueState& queue, ItemCount item);
  // Returns the refused item that the Push in progress brings again, if it does.
  std::optional<ItemCount> TakeRepeated(const QueueState& queue);

  // Returns whether the reader is an evicting one. Throws std::bad_alloc, with nothing changed.
  bool OpenReader(const ReaderState& reader, const QueueState& queue, const Refusal& lastCall);
  void CloseReader(const ReaderState& reader);
  bool IsEvicting(const ReaderState& reader) const;
  // Whether what the reader acknowledges in the call in progress is evicted.
  bool EvictsInThisCall(const ReaderState& reader) const;

 private:
  // An evicting reader, and the refused item that it makes room for.
  struct Eviction {
    const ReaderState* reader;
    const QueueState* queue;
    std::uint64_t thread;
    std::optional<ItemCount> refused;
  };

  Eviction* FindOwn(const QueueState& queue);
  const Eviction* Find(const ReaderState& reader) const;

  const std::uint64_t store_;
  std::vector<Eviction> evictions_;
};

}  // namespace veld_report::host
