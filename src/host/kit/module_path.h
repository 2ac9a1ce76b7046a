// Finds the module's library.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "host/services/loaded_module.h"

namespace veld_report::host {

// The folders in which the module is looked for if no path is given, in that order: that of the file with
// this code (the program, or a shared library), the library folder of the same prefix, and both for the
// program. No path of the machine that built this is among them.
std::vector<std::filesystem::path> ModuleFolders();

// Loads the module from `path`. If that is empty: the one that is linked into this program, or the first in
// ModuleFolders(), or what the system's loader finds, which looks in LD_LIBRARY_PATH, in the RUNPATH of the
// file with this code, and in its own folders. Throws std::runtime_error, which says where was looked.
std::unique_ptr<LoadedModule> LoadModule(const std::string& path = {});

}  // namespace veld_report::host
