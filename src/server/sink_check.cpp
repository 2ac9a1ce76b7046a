#include "server/sink_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "server/open_sink.h"

namespace veld_report::server {
namespace {

using namespace std::string_view_literals;

[[noreturn]] void Fail(const std::string& path, const std::string& what) {
  throw std::runtime_error(path + ": " + what);
}

bool MayAccess(const std::string& path, int mode) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

std::string Reason() { return std::generic_category().message(errno); }

std::string FolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

void CheckContent(const std::string& path, std::string_view beginning, const char* otherwise) {
  std::array<char, 16> read{};
  std::ifstream file(path, std::ios::binary);
  file.read(read.data(), static_cast<std::streamsize>(beginning.size()));
  const std::string_view found(read.data(), static_cast<std::size_t>(file.gcount()));
  if (!found.empty() && found != beginning) Fail(path, otherwise);
}

void CheckFile(const std::string& path, bool isDatabase) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    if (errno != ENOENT) Fail(path, "can't be opened: " + Reason());
    const std::string folder = FolderOf(path);
    if (!MayAccess(folder, W_OK | X_OK)) Fail(path, "can't be made in " + folder + ": " + Reason());
    return;
  }
  if (!S_ISREG(status.st_mode)) Fail(path, "isn't a regular file, so it can't be synced");
  if (!MayAccess(path, R_OK | W_OK)) Fail(path, "can't be opened: " + Reason());
  if (isDatabase)
    CheckContent(path, "SQLite format 3\0"sv, "isn't a database of SQLite; name another file");
  else
    CheckContent(path, "{", "isn't a file of JSON lines, so nothing is appended to it; name another file");
}

}  // namespace

void CheckSink(const std::string& out) {
  const SinkKind kind = SinkKindOf(out);
  if (kind == SinkKind::lines || kind == SinkKind::sqlite) CheckFile(out, kind == SinkKind::sqlite);
}

void CheckFolder(const std::string& folder) {
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    const std::string parent = FolderOf(folder);
    if (errno != ENOENT || !MayAccess(parent, W_OK | X_OK))
      Fail(folder, "can't make this folder: " + Reason());
  } else if (!S_ISDIR(status.st_mode)) {
    Fail(folder, "isn't a folder");
  } else if (!MayAccess(folder, W_OK | X_OK)) {
    Fail(folder, "can't be written: " + Reason());
  }
}

}  // namespace veld_report::server
