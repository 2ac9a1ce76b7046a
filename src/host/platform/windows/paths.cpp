#include "host/platform/paths.h"

#include <memory>

#include "host/platform/windows/wide.h"

namespace veld_report::host {
namespace {

namespace fs = std::filesystem;

struct FindClose {
  using pointer = HANDLE;
  void operator()(HANDLE find) const { ::FindClose(find); }
};

bool IsDotName(std::wstring_view name) { return name == L"." || name == L".."; }

}  // namespace

std::string Utf8(const fs::path& path) { return Narrow(path.native()); }
fs::path FromUtf8(std::string_view path) { return Wide(path); }
fs::path AbsolutePath(const fs::path& path) { return FullPath(path); }
fs::path SystemPath(const fs::path& path) { return LongPath(path); }

std::string WithoutPrefix(std::string_view systemPath) {
  const std::wstring path = Wide(systemPath);
  if (path.starts_with(longSharePrefix)) return Narrow(LR"(\\)" + path.substr(longSharePrefix.size()));
  return Narrow(path.starts_with(longPrefix) ? path.substr(longPrefix.size()) : path);
}

bool IsFolder(const fs::path& path) noexcept {
  try {
    const HANDLE file = CreateFileW(LongPath(path).c_str(), FILE_READ_ATTRIBUTES, shareAll, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    BY_HANDLE_FILE_INFORMATION info{};
    const bool isKnown = GetFileInformationByHandle(file, &info) != 0;
    CloseHandle(file);
    return isKnown && (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  } catch (const std::exception&) {
    return false;
  }
}

std::vector<fs::path> EntriesOf(const fs::path& folder) {
  WIN32_FIND_DATAW found{};
  const HANDLE first = FindFirstFileW((LongPath(folder) + LR"(\*)").c_str(), &found);
  if (first == INVALID_HANDLE_VALUE) throw fs::filesystem_error("can't list", folder, LastError());
  const std::unique_ptr<HANDLE, FindClose> find(first);
  std::vector<fs::path> entries;
  do {
    if (!IsDotName(found.cFileName)) entries.push_back(folder / found.cFileName);
  } while (FindNextFileW(find.get(), &found));
  if (GetLastError() != ERROR_NO_MORE_FILES) throw fs::filesystem_error("can't list", folder, LastError());
  return entries;
}

std::error_code MakeFolders(const fs::path& folder) noexcept {
  try {
    if (IsFolder(folder)) return {};
    const fs::path parent = folder.parent_path();
    if (!parent.empty() && parent != folder) {
      if (const std::error_code error = MakeFolders(parent)) return error;
    }
    if (CreateDirectoryW(LongPath(folder).c_str(), nullptr)) return {};
    const std::error_code error = LastError();
    return IsFolder(folder) ? std::error_code() : error;  // somebody else may have made it
  } catch (const std::exception&) {
    return std::make_error_code(std::errc::not_enough_memory);
  }
}

std::error_code Rename(const fs::path& from, const fs::path& to) noexcept {
  try {
    const bool moved =
        MoveFileExW(LongPath(from).c_str(), LongPath(to).c_str(), MOVEFILE_REPLACE_EXISTING) != 0;
    return moved ? std::error_code() : LastError();
  } catch (const std::exception&) {
    return std::make_error_code(std::errc::not_enough_memory);
  }
}

}  // namespace veld_report::host
