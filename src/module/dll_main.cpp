// The entry point on Windows, and what an exception leaves behind in a thread. The module wants no notice of
// the threads of its process, and the loader grants that to a library without thread-local storage. In the
// runtime library of mingw-w64 two things bring that along: its startup code, for variables that the module
// doesn't have, and the thread's record of its exceptions. So the first gets nothing to start, and the second
// is kept here: in fiber-local storage, which the system frees by itself when a thread ends.
#include <cstdlib>

extern "C" {

// As <windows.h> declares them.
__declspec(dllimport) int __stdcall DisableThreadLibraryCalls(void* library);
__declspec(dllimport) void* __stdcall GetProcessHeap();
__declspec(dllimport) void* __stdcall HeapAlloc(void* heap, unsigned long flags, unsigned long long size);
__declspec(dllimport) int __stdcall HeapFree(void* heap, unsigned long flags, void* block);
__declspec(dllimport) unsigned long __stdcall FlsAlloc(void(__stdcall* atThreadEnd)(void*));
__declspec(dllimport) int __stdcall FlsFree(unsigned long index);
__declspec(dllimport) void* __stdcall FlsGetValue(unsigned long index);
__declspec(dllimport) int __stdcall FlsSetValue(unsigned long index, void* value);

}  // extern "C"

namespace {

constexpr unsigned long noIndex = 0xffffffff;
unsigned long exceptionsIndex = noIndex;

void __stdcall FreeExceptions(void* record) { HeapFree(GetProcessHeap(), 0, record); }

}  // namespace

#if defined(__GNUC__)
extern "C" {

// Names and layout are those of the C++ ABI for exceptions, 2.2.2.
struct __cxa_eh_globals {
  void* caughtExceptions;
  unsigned int uncaughtExceptions;
};

__cxa_eh_globals* __cxa_get_globals() noexcept {
  if (void* const known = FlsGetValue(exceptionsIndex)) return static_cast<__cxa_eh_globals*>(known);
  constexpr unsigned long zeroed = 8;
  void* const record = HeapAlloc(GetProcessHeap(), zeroed, sizeof(__cxa_eh_globals));
  if (!record || !FlsSetValue(exceptionsIndex, record)) std::abort();  // as the runtime library does
  return static_cast<__cxa_eh_globals*>(record);
}

__cxa_eh_globals* __cxa_get_globals_fast() noexcept { return __cxa_get_globals(); }

// The startup code calls it for each thread, if it isn't null.
extern void(__stdcall* const __dyn_tls_init_callback)(void*, unsigned long, void*);
void(__stdcall* const __dyn_tls_init_callback)(void*, unsigned long, void*) = nullptr;

}  // extern "C"
#endif

extern "C" int __stdcall DllMain(void* library, unsigned long reason, void* processEnds) {
  constexpr unsigned long processDetach = 0, processAttach = 1;
  if (reason == processAttach) {
    DisableThreadLibraryCalls(library);
    exceptionsIndex = FlsAlloc(&FreeExceptions);
    return exceptionsIndex != noIndex;
  }
  // Calls FreeExceptions for every thread that has a record. At the end of the process the system takes all.
  if (reason == processDetach && !processEnds) FlsFree(exceptionsIndex);
  return 1;
}
