#include "tests/support/module_heap.h"

#include <link.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VELD_OWN_HEAP 0
#else
#define VELD_OWN_HEAP 1
#endif

namespace veld_report::tests {
namespace {

// Where the watched library lies in memory. begin == 0: nothing is watched.
std::atomic<std::uintptr_t> begin{0};
std::atomic<std::uintptr_t> end{0};
std::atomic<int> allocations{0};
std::atomic<int> failAt{0};
std::atomic<bool> failsOnwards{false};

// Nothing here may allocate. A slot is null or one live block of the library's; those from `used` on have
// always been null.
std::array<std::atomic<void*>, 1024> live;
std::atomic<std::size_t> used{0};

[[maybe_unused]] bool FromLibrary(const void* caller) {
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  return begin != 0 && address >= begin && address < end;
}

// True if this allocation is one of those that fail.
[[maybe_unused]] bool CountOne() {
  const int number = ++allocations;
  return number == failAt || (failsOnwards && failAt > 0 && number > failAt);
}

[[maybe_unused]] void Note(void* block) {
  for (std::size_t i = 0; i < live.size(); ++i) {
    void* empty = nullptr;
    if (live[i] || !live[i].compare_exchange_strong(empty, block)) continue;
    std::size_t bound = used;
    while (bound <= i && !used.compare_exchange_weak(bound, i + 1)) {
    }
    return;
  }
  std::abort();
}

[[maybe_unused]] void Forget(void* block) {
  if (!block || begin == 0) return;
  for (std::size_t i = 0; i < used; ++i) {
    void* held = block;
    if (live[i] == block && live[i].compare_exchange_strong(held, nullptr)) return;
  }
}

// Notes the extent of the library that has `data` in it.
int NoteExtent(dl_phdr_info* info, std::size_t, void* data) {
  std::uintptr_t first = UINTPTR_MAX, last = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    if (info->dlpi_phdr[i].p_type != PT_LOAD) continue;
    const std::uintptr_t start = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
    first = std::min(first, start);
    last = std::max(last, start + info->dlpi_phdr[i].p_memsz);
  }
  const auto wanted = reinterpret_cast<std::uintptr_t>(data);
  if (wanted < first || wanted >= last) return 0;
  end = last;
  begin = first;
  return 1;
}

}  // namespace

bool ModuleHeap::Available() { return VELD_OWN_HEAP != 0; }

void ModuleHeap::Watch(const void* inLibrary) {
  for (std::atomic<void*>& slot : live) slot = nullptr;
  used = 0;
  failAt = 0;
  dl_iterate_phdr(NoteExtent, const_cast<void*>(inLibrary));
}

void ModuleHeap::FailNth(int nth, bool onwards) {
  allocations = 0;
  failsOnwards = onwards;
  failAt = nth;
}

void ModuleHeap::StopFailing() { failAt = 0; }

int ModuleHeap::Allocations() { return allocations; }

int ModuleHeap::LiveBlocks() {
  int count = 0;
  for (const std::atomic<void*>& slot : live) count += slot != nullptr;
  return count;
}

void ModuleHeap::End() { begin = 0; }

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
