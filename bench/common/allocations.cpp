#include "bench/common/allocations.h"

#include <cstddef>

// glibc's own names of malloc and its relatives, exported so that a replacement can call them.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}

namespace {

thread_local std::uint64_t allocations = 0;

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) {
  ++allocations;
  return __libc_realloc(memory, size);
}

}  // extern "C"

namespace veld_report::bench {

std::uint64_t AllocationsOfThisThread() { return allocations; }

}  // namespace veld_report::bench
