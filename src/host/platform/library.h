// Shared libraries of this process: loading one, and where code lies. Threads: any.
#pragma once

#include <filesystem>
#include <string>

namespace veld_report::host {

// The name of the module's file on this system, and where the system's loader looks for a name without a
// folder.
#if defined(_WIN32)
inline constexpr char moduleFileName[] = "veld_report.dll";
inline constexpr char loaderPlaces[] = "the program's folder, the system's folders, PATH";
#else
inline constexpr char moduleFileName[] = "libveld_report.so";
inline constexpr char loaderPlaces[] = "LD_LIBRARY_PATH, the program's RUNPATH, the system's folders";
#endif

// Loads the file, or finds it where the system's loader looks if the name has no folder. Null on failure,
// with the loader's reason in `*why`. The caller owns the handle.
void* OpenLibrary(const std::string& path, std::string* why);
// Null if the library exports no such function.
void* FindFunction(void* library, const char* name) noexcept;
void CloseLibrary(void* library) noexcept;

// The folder of the shared library that has this function; empty if the program itself has it.
std::filesystem::path LibraryFolderOf(void (*function)());
std::filesystem::path ProgramFolder();
// From now on the shared library with this function stays loaded.
void KeepLoaded(void (*function)()) noexcept;

}  // namespace veld_report::host
