#include "tests/module/module_heap.h"

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELD_OWN_HEAP 0
#else
#define VELD_OWN_HEAP 1
#endif

namespace veld_report::tests {
namespace {

std::atomic<const void*> library{nullptr};  // where it is loaded; null: nothing is watched
std::atomic<int> allocations{0};
std::atomic<int> failAt{0};

// Nothing here may allocate. A slot is null or one live block of the library's.
std::array<std::atomic<void*>, 1024> live;

const void* LibraryOf(const void* address) {
  Dl_info info;
  return dladdr(address, &info) ? info.dli_fbase : nullptr;
}

[[maybe_unused]] bool FromLibrary(const void* caller) {
  const void* watched = library;
  return watched && LibraryOf(caller) == watched;
}

// True if this allocation is the one that fails.
[[maybe_unused]] bool CountOne() { return ++allocations == failAt; }

[[maybe_unused]] void Note(void* block) {
  for (std::atomic<void*>& slot : live) {
    void* empty = nullptr;
    if (slot.compare_exchange_strong(empty, block)) return;
  }
  std::abort();
}

[[maybe_unused]] void Forget(void* block) {
  if (!block || !library) return;
  for (std::atomic<void*>& slot : live) {
    void* held = block;
    if (slot.compare_exchange_strong(held, nullptr)) return;
  }
}

}  // namespace

bool ModuleHeap::Available() { return VELD_OWN_HEAP != 0; }

void ModuleHeap::Begin(const void* inLibrary, int failNth) {
  for (std::atomic<void*>& slot : live) slot = nullptr;
  allocations = 0;
  failAt = failNth;
  library = LibraryOf(inLibrary);
}

int ModuleHeap::Allocations() { return allocations; }

int ModuleHeap::LiveBlocks() {
  int count = 0;
  for (const std::atomic<void*>& slot : live) count += slot != nullptr;
  return count;
}

void ModuleHeap::End() { library = nullptr; }

}  // namespace veld_report::tests

#if VELD_OWN_HEAP

using namespace veld_report::tests;

extern "C" {
void* __libc_malloc(std::size_t size);
void __libc_free(void* block);

__attribute__((noinline)) void* malloc(std::size_t size) noexcept {
  const bool counted = FromLibrary(__builtin_return_address(0));
  if (counted && CountOne()) return nullptr;
  void* block = __libc_malloc(size);
  if (counted && block) Note(block);
  return block;
}

void free(void* block) noexcept {
  Forget(block);
  __libc_free(block);
}
}

__attribute__((noinline)) void* operator new(std::size_t size) {
  const bool counted = FromLibrary(__builtin_return_address(0));
  void* block = counted && CountOne() ? nullptr : __libc_malloc(size);
  if (!block) throw std::bad_alloc();
  if (counted) Note(block);
  return block;
}
void operator delete(void* block) noexcept { free(block); }
void operator delete(void* block, std::size_t) noexcept { free(block); }

#else

// A size that no heap has must give null here too.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

#endif
