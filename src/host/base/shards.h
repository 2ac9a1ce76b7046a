// Shards: one place for each of a few threads, on cache lines of their own, for what every call changes.
//
// Cores that change the same cache line wait for each other, some 50 ns each time. A thread only changes the
// place that is its own; who needs the whole goes through all of them. Threads share a place if there are
// more of them than places, so a place is still an atomic or a lock.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

namespace veld_report::host {

inline constexpr std::size_t shardCount = 16;

// The place of this thread. It stays the same.
inline std::size_t ThreadShard() noexcept {
  static constinit std::atomic<std::size_t> next{0};  // only spreads the threads, so relaxed
  constexpr std::size_t none = shardCount;
  static thread_local constinit std::size_t own = none;
  if (own == none) own = next.fetch_add(1, std::memory_order_relaxed) % shardCount;
  return own;
}

template <class T>
class Shards {
 public:
  T& Own() noexcept { return places_[ThreadShard()].value; }

  template <class Body>
  void ForEach(Body&& body) {
    for (Place& place : places_) body(place.value);
  }

 private:
  struct alignas(64) Place {
    T value{};
  };
  std::array<Place, shardCount> places_{};
};

// A shared mutex for what every call reads and hardly any changes. `lock_shared` is as cheap as an own mutex;
// `lock` takes all of them. The thread that has locked must unlock.
class ShardedMutex {
 public:
  void lock_shared() { mutexes_.Own().lock(); }
  bool try_lock_shared() { return mutexes_.Own().try_lock(); }
  void unlock_shared() { mutexes_.Own().unlock(); }
  void lock() {
    mutexes_.ForEach([](std::mutex& each) { each.lock(); });
  }
  void unlock() {
    mutexes_.ForEach([](std::mutex& each) { each.unlock(); });
  }

 private:
  Shards<std::mutex> mutexes_;
};

}  // namespace veld_report::host
