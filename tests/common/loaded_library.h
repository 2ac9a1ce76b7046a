// Whether a shared library is loaded in this process, for tests that unload one.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace veld_report::tests {

inline bool IsLoaded(const char* file) {
#ifdef _WIN32
  return GetModuleHandleA(file) != nullptr;
#else
  void* const library = dlopen(file, RTLD_NOW | RTLD_NOLOAD);
  if (library) dlclose(library);
  return library != nullptr;
#endif
}

}  // namespace veld_report::tests
