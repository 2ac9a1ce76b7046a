#include "host/queue/queue_refusal.h"

#include <atomic>
#include <utility>

namespace veld_report::host {
namespace {

thread_local constinit Refusal lastRefusal;

}  // namespace

std::uint64_t NextNumber() {
  static constinit std::atomic<std::uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint64_t ThreadNumber() {
  thread_local const std::uint64_t number = NextNumber();
  return number;
}

void RememberRefusal(const Refusal& refusal) { lastRefusal = refusal; }

Refusal TakeRefusal() { return std::exchange(lastRefusal, Refusal{}); }

}  // namespace veld_report::host
