#include "host/platform/library.h"

#include "host/platform/windows/wide.h"

namespace veld_report::host {
namespace {

namespace fs = std::filesystem;

// Null is the program.
fs::path FileOf(HMODULE library) {
  constexpr DWORD longestPath = 32768;
  std::wstring path(longestPath, L'\0');
  path.resize(GetModuleFileNameW(library, path.data(), longestPath));
  return path;
}

HMODULE LibraryOf(void (*function)(), DWORD flags) noexcept {
  HMODULE library = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | flags,
                     reinterpret_cast<const wchar_t*>(function), &library);
  return library;
}

}  // namespace

void* OpenLibrary(const std::string& path, std::string* why) {
  const fs::path file(Wide(path));
  // With its folder named, what the library needs is looked for there first.
  const DWORD flags =
      file.has_parent_path() ? LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS : 0;
  std::wstring name = file.has_parent_path() ? FullPath(file) : file.wstring();
  if (name.size() >= MAX_PATH) name = LongPath(name);
  HMODULE const library = LoadLibraryExW(name.c_str(), nullptr, flags);
  if (!library) *why = path + ": " + LastError().message();
  return library;
}

void* FindFunction(void* library, const char* name) noexcept {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void CloseLibrary(void* library) noexcept { FreeLibrary(static_cast<HMODULE>(library)); }

fs::path LibraryFolderOf(void (*function)()) {
  HMODULE const library = LibraryOf(function, GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT);
  if (!library || library == GetModuleHandleW(nullptr)) return {};
  return FileOf(library).parent_path();
}

fs::path ProgramFolder() { return FileOf(nullptr).parent_path(); }

void KeepLoaded(void (*function)()) noexcept { LibraryOf(function, GET_MODULE_HANDLE_EX_FLAG_PIN); }

}  // namespace veld_report::host
