#include "host/platform/library.h"

#include <dlfcn.h>
#include <link.h>

#include <system_error>

namespace veld_report::host {

namespace fs = std::filesystem;

void* OpenLibrary(const std::string& path, std::string* why) {
  void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library) return library;
  const char* const text = ::dlerror();
  *why = text ? text : "unknown reason";
  return nullptr;
}

void* FindFunction(void* library, const char* name) noexcept { return ::dlsym(library, name); }

void CloseLibrary(void* library) noexcept { ::dlclose(library); }

fs::path LibraryFolderOf(void (*function)()) {
  Dl_info info{};
  link_map* own = nullptr;
  void** const out = reinterpret_cast<void**>(&own);
  if (::dladdr1(reinterpret_cast<void*>(function), &info, out, RTLD_DL_LINKMAP) == 0) return {};
  // A program has no name here, and dli_fname is argv[0], which needn't be a path.
  if (!own || !own->l_name || !*own->l_name) return {};
  std::error_code error;
  return fs::absolute(own->l_name, error).parent_path();
}

fs::path ProgramFolder() {
  std::error_code error;
  return fs::read_symlink("/proc/self/exe", error).parent_path();
}

void KeepLoaded(void (*function)()) noexcept {
  Dl_info self{};
  if (::dladdr(reinterpret_cast<void*>(function), &self) == 0 || !self.dli_fname) return;
  ::dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
}

}  // namespace veld_report::host
