#include "host/platform/paths.h"

namespace veld_report::host {

namespace fs = std::filesystem;

std::string Utf8(const fs::path& path) { return path.native(); }
fs::path FromUtf8(std::string_view path) { return path; }
fs::path AbsolutePath(const fs::path& path) { return fs::absolute(path).lexically_normal(); }
fs::path SystemPath(const fs::path& path) { return path; }
std::string WithoutPrefix(std::string_view systemPath) { return std::string(systemPath); }

bool IsFolder(const fs::path& path) noexcept {
  std::error_code ignored;
  return fs::is_directory(path, ignored);
}

std::vector<fs::path> EntriesOf(const fs::path& folder) {
  std::vector<fs::path> entries;
  for (const auto& entry : fs::directory_iterator(folder)) entries.push_back(entry.path());
  return entries;
}

std::error_code MakeFolders(const fs::path& folder) noexcept {
  std::error_code error;
  fs::create_directories(folder, error);
  return error;
}

std::error_code Rename(const fs::path& from, const fs::path& to) noexcept {
  std::error_code error;
  fs::rename(from, to, error);
  return error;
}

}  // namespace veld_report::host
