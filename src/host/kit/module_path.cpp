#include "host/kit/module_path.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

namespace veld_report::host {
namespace {

namespace fs = std::filesystem;

constexpr char moduleName[] = "libveld_report.so";

// The folder of the shared library with this code; empty if the program itself has it.
fs::path OwnFolder() {
  Dl_info info{};
  link_map* own = nullptr;
  void** const out = reinterpret_cast<void**>(&own);
  if (::dladdr1(reinterpret_cast<void*>(&ModuleFolders), &info, out, RTLD_DL_LINKMAP) == 0) return {};
  // A program has no name here, and dli_fname is argv[0], which needn't be a path.
  if (!own || !own->l_name || !*own->l_name) return {};
  std::error_code error;
  return fs::absolute(own->l_name, error).parent_path();
}

fs::path ProgramFolder() {
  std::error_code error;
  return fs::read_symlink("/proc/self/exe", error).parent_path();
}

}  // namespace

std::vector<fs::path> ModuleFolders() {
  std::vector<fs::path> folders;
  const auto add = [&](const fs::path& folder) {
    if (std::ranges::find(folders, folder) == folders.end()) folders.push_back(folder);
  };
  for (const fs::path& home : {OwnFolder(), ProgramFolder()}) {
    if (home.empty()) continue;
    add(home);
    for (const char* const libraries : {VELD_LIBRARY_FOLDER, "lib", "lib/" VELD_LIBRARY_ARCHITECTURE}) {
      add((home.parent_path() / libraries / "").parent_path());
    }
  }
  return folders;
}

std::unique_ptr<LoadedModule> LoadModule(const std::string& path) {
  if (!path.empty()) return std::make_unique<LoadedModule>(path);
  if (const ModuleExports* linked = LinkedModule()) return std::make_unique<LoadedModule>(*linked);
  std::string looked;
  for (const fs::path& folder : ModuleFolders()) {
    std::error_code error;
    if (fs::is_regular_file(folder / moduleName, error)) {
      return std::make_unique<LoadedModule>((folder / moduleName).string());
    }
    looked += folder.string() + ", ";
  }
  try {
    return std::make_unique<LoadedModule>(moduleName);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(std::string(error.what()) + ". Looked in " + looked +
                             "and where the system's loader looks (LD_LIBRARY_PATH, the program's RUNPATH, "
                             "the system's folders)");
  }
}

}  // namespace veld_report::host
