// LoadedModule: the module in this process, a shared library or a part of the program (linked_module.h).
//
// A shared library is loaded at run time, so a host builds without it. It is only unloaded once it has
// reported that none of its objects is alive. The host must also make sure that no thread is inside its code,
// so it stops its timer and its HTTP client first.
#pragma once

#include <string>

#include "host/services/linked_module.h"
#include "types/ref.h"

namespace veld_report::host {

// Life: loaded -> unloaded (TryUnload returned true) or left in the process.
// Threads: any, but not during TryUnload or the destructor.
class LoadedModule {
 public:
  // `path` is the library's file; without a slash the system's loader looks for it. Throws std::runtime_error
  // with the loader's reason, or with the name of the function that the file lacks.
  explicit LoadedModule(const std::string& path);
  // The module that is linked into this program. Its code stays after TryUnload.
  explicit LoadedModule(const ModuleExports& linked);
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;
  // Unloads if possible; otherwise the library stays in the process for good, which is safe.
  ~LoadedModule();

  // Empty for a linked module.
  const std::string& Path() const { return path_; }

  // A factory of the sender's class. `locator` may be null. Throws std::runtime_error with the code.
  zel::Ref<zel::IObjectFactory> MakeFactory(zel::IServiceLocator* locator);

  // True while no object of the module is alive.
  bool CanUnload() const;
  // Unloads if no object is alive. Returns true if the library is gone.
  bool TryUnload();

 private:
  void* Find(const char* name) const;

  std::string path_;
  void* handle_ = nullptr;
  ModuleExports exports_{};  // null after TryUnload
};

}  // namespace veld_report::host
