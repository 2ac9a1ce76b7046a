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

// An absolute path with the prefix that lets it be longer than MAX_PATH.
std::wstring LongPath(const std::filesystem::path& path);

inline std::error_code LastError() noexcept {
  return std::error_code(static_cast<int>(GetLastError()), std::system_category());
}

}  // namespace veld_report::host
