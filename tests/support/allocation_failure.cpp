#include "tests/support/allocation_failure.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>

extern "C" {
void* __real_malloc(std::size_t size);
void __real_free(void* memory);
void* __wrap_malloc(std::size_t size);
void __wrap_free(void* memory);
// A size that no heap has must give null under the sanitizers too.
const char* __asan_default_options();
const char* __tsan_default_options();
}

namespace {

std::atomic<std::int64_t> liveBlocks{0};
thread_local std::int64_t allocations = 0;
thread_local std::int64_t failIn = -1;
thread_local bool hasFailed = false;

void* CountedMalloc(std::size_t size) {
  if (failIn >= 0 && failIn-- == 0) {
    hasFailed = true;
    return nullptr;
  }
  void* memory = __real_malloc(size);
  if (memory) {
    ++allocations;
    ++liveBlocks;
  }
  return memory;
}

void CountedFree(void* memory) {
  if (memory) --liveBlocks;
  __real_free(memory);
}

}  // namespace

extern "C" {
void* __wrap_malloc(std::size_t size) { return CountedMalloc(size); }
void __wrap_free(void* memory) { CountedFree(memory); }
const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
}

void* operator new(std::size_t size) {
  if (void* memory = CountedMalloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { CountedFree(memory); }
void operator delete(void* memory, std::size_t) noexcept { CountedFree(memory); }

namespace veld_report::test {

std::int64_t LiveBlocks() { return liveBlocks; }
std::int64_t AllocationCount() { return allocations; }
void FailAllocationAfter(std::int64_t n) {
  failIn = n;
  hasFailed = false;
}
bool StopFailingAllocations() {
  failIn = -1;
  return hasFailed;
}

}  // namespace veld_report::test
