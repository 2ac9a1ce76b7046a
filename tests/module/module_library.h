// The built module, loaded once a test program, by its two exports.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "contract/exports.h"

namespace veld_report::tests {

struct ModuleLibrary {
  void* handle = nullptr;
  orvel::veld_report::GetObjectFactoryFunction* getObjectFactory = nullptr;
  orvel::veld_report::CanUnloadModuleFunction* canUnload = nullptr;

  static ModuleLibrary Load() {
    ModuleLibrary library;
    library.handle = dlopen(VELD_MODULE_FILE, RTLD_NOW | RTLD_LOCAL);
    if (!library.handle) {
      ADD_FAILURE() << dlerror();
      std::abort();
    }
    library.getObjectFactory = reinterpret_cast<orvel::veld_report::GetObjectFactoryFunction*>(
        dlsym(library.handle, orvel::veld_report::getObjectFactoryName));
    library.canUnload = reinterpret_cast<orvel::veld_report::CanUnloadModuleFunction*>(
        dlsym(library.handle, orvel::veld_report::canUnloadModuleName));
    return library;
  }
  // Stays loaded to the end of the program.
  static const ModuleLibrary& Get() {
    static const ModuleLibrary library = Load();
    return library;
  }
};

}  // namespace veld_report::tests
