// Paths as people write them and as the system takes them, and what the system says of folders.
//
// std::filesystem has most of these functions, but on Windows it refuses paths of over 260 characters. What
// works on the text of a path alone can be used everywhere. Threads: any.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace veld_report::host {

// A path as the users of this code write paths, and back: UTF-8 on Windows too. Throw std::bad_alloc.
std::string Utf8(const std::filesystem::path& path);
std::filesystem::path FromUtf8(std::string_view path);

// The path with an ending in ASCII. Its text plus the ending isn't the same: on Windows that text is UTF-8,
// and a path isn't made of UTF-8.
inline std::filesystem::path WithEnding(std::filesystem::path path, const char* ending) {
  return path += ending;
}

// The path from its root and without dots, as the working folder stands now. Throws filesystem_error.
std::filesystem::path AbsolutePath(const std::filesystem::path& path);
// The path in the form that streams and libraries can open at any length: absolute and with a prefix on
// Windows, unchanged elsewhere. Not for messages, and not for std::filesystem.
std::filesystem::path SystemPath(const std::filesystem::path& path);
// Such a path in UTF-8 without its prefix, for messages.
std::string WithoutPrefix(std::string_view systemPath);

// Follows links. False also if the system doesn't say.
bool IsFolder(const std::filesystem::path& path) noexcept;
// The paths of all that the folder holds, in no order. Throws std::filesystem::filesystem_error.
std::vector<std::filesystem::path> EntriesOf(const std::filesystem::path& folder);
// Makes the folder and its parents, with the rights that new folders have there. No error if it exists.
std::error_code MakeFolders(const std::filesystem::path& folder) noexcept;
// Gives a file another name, also one that another file had.
std::error_code Rename(const std::filesystem::path& from, const std::filesystem::path& to) noexcept;

}  // namespace veld_report::host
