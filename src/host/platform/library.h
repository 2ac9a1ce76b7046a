// Shared libraries of this process: loading one, and where code lies. Threads: any.
#pragma once

#include <filesystem>
#include <string>

namespace veld_report::host {

// What the file of a library is named on this system, without a folder.
inline constexpr char moduleFileName[] =
#if defined(_WIN32)
    "veld_report.dll";
#else
    "libveld_report.so";
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
