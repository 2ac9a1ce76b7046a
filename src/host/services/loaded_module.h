// LoadedModule, the module's shared library in this process.
//
// It is loaded at run time and never linked, so a host builds without it. It goes only after it has answered
// that none of its objects is alive; the duty of having no thread inside its code stays with the host, which
// therefore stops its timer and its HTTP client first.
#pragma once

#include <string>

#include "contract/exports.h"
#include "types/ref.h"

namespace veld_report::host {

// Life: loaded -> unloaded (TryUnload answered true) or left in the process.
// Threads: any, but TryUnload and the destructor alone.
class LoadedModule {
 public:
  // `path`: of the library file; one without a slash is looked for as the system's loader does. Throws
  // std::runtime_error with the loader's reason, or the name of the function that the file lacks.
  explicit LoadedModule(const std::string& path);
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;
  // Unloads if it can; else the library stays in the process for good, which is safe.
  ~LoadedModule();

  // A factory of the sender's class. `locator` may be null. Throws std::runtime_error with the code.
  zel::Ref<zel::IObjectFactory> MakeFactory(zel::IServiceLocator* locator);

  // True while no object of the module is alive.
  bool CanUnload() const;
  // Unloads if no object is alive. Returns whether the library is gone.
  bool TryUnload();

 private:
  void* Find(const char* name) const;

  std::string path_;
  void* handle_ = nullptr;
  orvel::veld_report::GetObjectFactoryFunction* getObjectFactory_ = nullptr;
  orvel::veld_report::CanUnloadModuleFunction* canUnloadModule_ = nullptr;
};

}  // namespace veld_report::host
