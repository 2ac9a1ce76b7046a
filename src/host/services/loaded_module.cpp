#include "host/services/loaded_module.h"

#include <stdexcept>
#include <utility>

#include "host/platform/library.h"
#include "veld_report/code_text.h"

namespace veld_report::host {
LoadedModule::LoadedModule(const std::string& path) : path_(path) {
  std::string why;
  handle_ = OpenLibrary(path, &why);
  if (!handle_) {
    throw std::runtime_error("module: can't be loaded: " + why +
                             "; set modulePath (veldrep: --module) to the file " + moduleFileName);
  }
  try {
    using orvel::veld_report::CanUnloadModuleFunction;
    using orvel::veld_report::GetObjectFactoryFunction;
    exports_.getObjectFactory =
        reinterpret_cast<GetObjectFactoryFunction*>(Find(orvel::veld_report::getObjectFactoryName));
    exports_.canUnload =
        reinterpret_cast<CanUnloadModuleFunction*>(Find(orvel::veld_report::canUnloadModuleName));
  } catch (...) {
    CloseLibrary(handle_);
    throw;
  }
}

LoadedModule::LoadedModule(const ModuleExports& linked) : exports_(linked) {}

LoadedModule::~LoadedModule() { TryUnload(); }

void* LoadedModule::Find(const char* name) const {
  void* const symbol = FindFunction(handle_, name);
  if (symbol) return symbol;
  throw std::runtime_error("module " + path_ + ": exports no function " + name +
                           "; the path must name the module's library");
}

zel::Ref<zel::IObjectFactory> LoadedModule::MakeFactory(zel::IServiceLocator* locator) {
  if (!exports_.getObjectFactory) throw std::runtime_error("module " + path_ + ": is unloaded");
  zel::Ref<zel::IObject> object;
  const zel::ResultCode made =
      exports_.getObjectFactory(locator, orvel::veld_report::senderClassId, object.Out());
  if (zel::Failed(made))
    throw std::runtime_error("module " + path_ + ": can't create its object factory: " + CodeText(made));
  zel::Ref<zel::IObjectFactory> factory;
  const zel::ResultCode found = object->QueryInterface(zel::IObjectFactory::iid, factory.OutVoid());
  if (zel::Failed(found)) {
    throw std::runtime_error("module " + path_ + ": its factory isn't an object factory: " + CodeText(found));
  }
  return factory;
}

bool LoadedModule::CanUnload() const { return !exports_.canUnload || exports_.canUnload() == 0; }

bool LoadedModule::TryUnload() {
  if (!CanUnload()) return false;
  exports_ = {};
  if (handle_) CloseLibrary(std::exchange(handle_, nullptr));
  return true;
}

}  // namespace veld_report::host
