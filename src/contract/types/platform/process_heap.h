// The process heap, which host and module share: malloc and free, and on Windows the heap of
// GetProcessHeap(), since there each library may have a malloc of its own.
#pragma once

#include <cstdint>
#include <cstdlib>

#if defined(_WIN32)
// As <windows.h> declares them, without its macros.
extern "C" {
__declspec(dllimport) void* __stdcall GetProcessHeap();
__declspec(dllimport) void* __stdcall HeapAlloc(void* heap, unsigned long flags, unsigned long long size);
__declspec(dllimport) int __stdcall HeapFree(void* heap, unsigned long flags, void* memory);
}
#endif

namespace zel::platform {

// Returns `size` bytes, aligned for any type, or null.
inline void* AllocateFromProcessHeap(std::uint64_t size) {
#if defined(_WIN32)
  return HeapAlloc(GetProcessHeap(), 0, size);
#else
  return std::malloc(size);
#endif
}

// `memory` may be null.
inline void FreeToProcessHeap(void* memory) {
#if defined(_WIN32)
  if (memory) HeapFree(GetProcessHeap(), 0, memory);
#else
  std::free(memory);
#endif
}

}  // namespace zel::platform
