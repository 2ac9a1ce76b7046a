#include "host/kit/module_path.h"

#include <filesystem>
#include <system_error>

namespace veld_report::host {

std::string FindModule() {
  constexpr char name[] = "libveld_report.so";
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return name;
  const std::filesystem::path folder = program.parent_path();
  for (const auto& candidate : {folder / name, folder.parent_path() / "lib" / name}) {
    if (std::filesystem::is_regular_file(candidate, error)) return candidate.string();
  }
  return name;
}

}  // namespace veld_report::host
