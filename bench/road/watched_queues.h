// WatchedQueues: the queue service as the module sees it, with an account of what passes.
//
// It hands on every call. A call costs a virtual call and a counter more than without it, some nanoseconds of
// the microseconds that it is to explain.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "contract/queue.h"
#include "types/ref.h"

namespace veld_report::bench {

using SteadyTime = std::chrono::steady_clock::time_point;

// Threads: any may read.
struct QueueTraffic {
  std::atomic<std::uint64_t> pushed{0};  // items that Push took
  std::atomic<std::uint64_t> read{0};
  std::atomic<std::uint64_t> acknowledged{0};
  std::atomic<std::int64_t> firstReadNs{0};  // when the first Read had given an item, on the steady clock
};

// `traffic` must outlive every object of it.
zel::Ref<orvel::IQueueFactory> WatchQueues(zel::Ref<orvel::IQueueFactory> inner, QueueTraffic& traffic);

}  // namespace veld_report::bench
