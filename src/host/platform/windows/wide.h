// Windows' headers without its macros for the names of functions, and texts in its encoding. For the files of
// this folder only.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace veld_report::host {

// Texts are UTF-8 everywhere else. What isn't valid becomes U+FFFD. Throw std::bad_alloc.
std::wstring Wide(std::string_view text);
std::string Narrow(std::wstring_view text);

// Others may read, write, rename and delete the file meanwhile.
inline constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// Before a path that may be longer than MAX_PATH; the second one in place of the backslashes of
// \\server\share.
inline constexpr std::wstring_view longPrefix = LR"(\\?\)";
inline constexpr std::wstring_view longSharePrefix = LR"(\\?\UNC\)";
// The absolute path without dots and with backslashes, also of \\server\share. A prefix stays.
std::wstring FullPath(const std::filesystem::path& path);
// That path with such a prefix.
std::wstring LongPath(const std::filesystem::path& path);

inline std::error_code LastError() noexcept {
  return std::error_code(static_cast<int>(GetLastError()), std::system_category());
}

}  // namespace veld_report::host
