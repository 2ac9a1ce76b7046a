// WatchedQueues: the queue service as the module sees it, with counters.
//
// It forwards every call. That adds a virtual call and a counter, some nanoseconds to the microseconds that
// are being measured.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "contract/queue.h"
#include "types/ref.h"

namespace veld_report::bench {

using SteadyTime = std::chrono::steady_clock::time_point;

// Threads: may be read on any thread.
struct QueueTraffic {
  std::atomic<std::uint64_t> pushed{0};  // items that Push accepted
  std::atomic<std::uint64_t> acknowledged{0};
  std::atomic<std::int64_t> firstReadNs{0};  // when the first Read returned an item, on the steady clock
};

// `traffic` must outlive every object of the factory.
zel::Ref<orvel::IQueueFactory> WatchQueues(zel::Ref<orvel::IQueueFactory> inner, QueueTraffic& traffic);

}  // namespace veld_report::bench
