// EvictionTracker distinguishes evictions from deliveries. An Ack looks the same for both, so it goes by who
// calls.
//
// A producer whose Push is refused as out of space makes room: its very next call to the service, on the same
// thread, opens a reader, and it acknowledges items through that reader on that thread. So:
//   - A reader is an evicting one if the last call to the store on its thread was a Push on the same queue
//     that returned out of space. What it acknowledges on that thread counts as evicted.
//   - What any other reader acknowledges counts as delivered.
//   - A refused item counts as rejected at once. If the same thread pushes to the same queue again while the
//     evicting reader is alive, that is the same item, so the rejection is first taken back. Without an
//     evicting reader each refused Push is a separate loss.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "veld_report/queue_ledger.h"

namespace veld_report::host {

struct QueueState;   // host/queue/queue_store.h
struct ReaderState;  // host/queue/queue_store.h

// Each store has one. BeginCall may run on any thread; the other operations run under the store's lock.
class EvictionTracker {
 public:
  // The refusal that the calling thread's last call returned; without a store if it returned anything else.
  struct Refusal {
    std::uint64_t store = 0;
    const QueueState* queue = nullptr;
    ItemCount item;
  };

  EvictionTracker();

  // Called first in every operation of a store, so that only the very next call sees a refusal.
  static Refusal BeginCall();

  // The current Push returns that there is no room for `item`.
  void NoteRefusal(const QueueState& queue, ItemCount item);
  // Returns the refused item if the current Push repeats it.
  std::optional<ItemCount> TakeRepeated(const QueueState& queue);

  // Returns true if the reader is an evicting one. Throws std::bad_alloc, with nothing changed.
  bool OpenReader(const ReaderState& reader, const QueueState& queue, const Refusal& lastCall);
  // Returns the item for which an evicting reader didn't make enough room.
  std::optional<ItemCount> CloseReader(const ReaderState& reader);
  // Whether the refusal came from this store.
  bool IsOwn(const Refusal& refusal) const { return refusal.store == store_; }
  bool IsEvicting(const ReaderState& reader) const;
  // True if what the reader acknowledges in the current call is evicted.
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
