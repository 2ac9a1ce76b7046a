#include "host/platform/process.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>

namespace veld_report::host {
namespace {

// Only compared with another one; publishes nothing but itself.
using Number = std::atomic<std::uint64_t>;

// A page that is zeroed in every child, however it was forked; a handler of pthread_atfork would miss clone.
// Null if the kernel can't do that.
Number* WipedOnFork() noexcept {
  const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  if (madvise(page, size, MADV_WIPEONFORK) == 0) return new (page) Number(0);
  munmap(page, size);
  return nullptr;
}

}  // namespace

std::uint64_t CurrentProcess() noexcept {
  static Number* const number = WipedOnFork();
  if (!number) return static_cast<std::uint64_t>(getpid());
  const std::uint64_t known = number->load(std::memory_order_relaxed);
  if (known != 0) return known;
  // The counter itself is inherited, so a child continues above its parent's number.
  static constinit Number last{0};
  const std::uint64_t fresh = last.fetch_add(1) + 1;
  std::uint64_t expected = 0;
  return number->compare_exchange_strong(expected, fresh) ? fresh : expected;
}

std::uint64_t ProcessId() noexcept { return static_cast<std::uint64_t>(getpid()); }

}  // namespace veld_report::host
