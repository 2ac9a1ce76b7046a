#include "host/kit/module_path.h"

#include <dlfcn.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace veld_report::host {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> Homes() {
  std::vector<fs::path> homes;
  Dl_info self{};
  std::error_code error;
  if (::dladdr(reinterpret_cast<void*>(&FindModule), &self) != 0 && self.dli_fname) {
    homes.push_back(fs::absolute(self.dli_fname, error).parent_path());
  }
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  if (!error) homes.push_back(program.parent_path());
  return homes;
}

std::vector<fs::path> Folders() {
  const fs::path packaged = fs::path("lib") / VELD_LIBRARY_ARCHITECTURE / "veld_report";
  std::vector<fs::path> folders;
  for (const fs::path& home : Homes()) {
    const fs::path above = home.parent_path();
    folders.insert(folders.end(),
                   {home, home / "veld_report", above / "lib", above / "lib/veld_report", above / packaged});
  }
  for (const char* const prefix : {"/usr/local", "/usr"}) {
    folders.insert(folders.end(), {fs::path(prefix) / "lib/veld_report", prefix / packaged});
  }
  return folders;
}

}  // namespace

std::string FindModule() {
  constexpr char name[] = "libveld_report.so";
  std::error_code error;
  for (const fs::path& folder : Folders()) {
    if (fs::is_regular_file(folder / name, error)) return (folder / name).string();
  }
  return name;
}

}  // namespace veld_report::host
