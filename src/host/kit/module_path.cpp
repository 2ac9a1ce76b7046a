#include "host/kit/module_path.h"

#include <algorithm>
#include <stdexcept>

#include "host/platform/file.h"
#include "host/platform/library.h"

namespace veld_report::host {
namespace {

namespace fs = std::filesystem;

void InThisLibrary() {}

}  // namespace

std::vector<fs::path> ModuleFolders() {
  std::vector<fs::path> folders;
  const auto add = [&](const fs::path& folder) {
    if (std::ranges::find(folders, folder) == folders.end()) folders.push_back(folder);
  };
  for (const fs::path& home : {LibraryFolderOf(&InThisLibrary), ProgramFolder()}) {
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
    if (!ReadProblem(folder / moduleFileName) && !IsFolder(folder / moduleFileName)) {
      return std::make_unique<LoadedModule>(Utf8(folder / moduleFileName));
    }
    looked += Utf8(folder) + ", ";
  }
  try {
    return std::make_unique<LoadedModule>(moduleFileName);
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(std::string(error.what()) + ". Looked in " + looked +
                             "and where the system's loader looks (" + loaderPlaces + ")");
  }
}

}  // namespace veld_report::host
