#include "tests/module/module_heap.h"

#include <dlfcn.h>
#include <link.h>

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

std::atomic<std::uintptr_t> codeBegin{0};
std::atomic<std::uintptr_t> codeEnd{0};
std::atomic<int> allocations{0};
std::atomic<int> failAt{0};

// Nothing here may allocate. A slot is null or one live block of the library's.
std::array<std::atomic<void*>, 1024> live;

struct Search {
  std::uintptr_t address;
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

int FindSegment(dl_phdr_info* info, std::size_t, void* data) {
  auto& search = *static_cast<Search*>(data);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& segment = info->dlpi_phdr[i];
    const std::uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
    if (segment.p_type != PT_LOAD || search.address < begin || search.address >= begin + segment.p_memsz)
      continue;
    search.begin = begin;
    search.end = begin + segment.p_memsz;
    return 1;
  }
  return 0;
}

[[maybe_unused]] bool FromLibrary(const void* caller) {
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  return address >= codeBegin && address < codeEnd;
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
  if (!block || codeEnd == 0) return;
  for (std::atomic<void*>& slot : live) {
    void* held = block;
    if (slot.compare_exchange_strong(held, nullptr)) return;
  }
}

}  // namespace

bool ModuleHeap::Available() { return VELD_OWN_HEAP != 0; }

void ModuleHeap::Begin(const void* inLibrary, int failNth) {
  Search search{reinterpret_cast<std::uintptr_t>(inLibrary)};
  dl_iterate_phdr(FindSegment, &search);
  for (std::atomic<void*>& slot : live) slot = nullptr;
  allocations = 0;
  failAt = failNth;
  codeBegin = search.begin;
  codeEnd = search.end;
}

int ModuleHeap::Allocations() { return allocations; }

int ModuleHeap::LiveBlocks() {
  int count = 0;
  for (const std::atomic<void*>& slot : live) count += slot != nullptr;
  return count;
}

void ModuleHeap::End() {
  codeBegin = 0;
  codeEnd = 0;
}

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

#endif
