#include "host/services/loaded_module.h"

#include <dlfcn.h>

#include <stdexcept>
#include <utility>

#include "veld_report/code_text.h"

namespace veld_report::host {
namespace {

std::string LoaderError() {
  const char* const text = ::dlerror();
  return text ? text : "unknown reason";
}

}  // namespace

LoadedModule::LoadedModule(const std::string& path) : path_(path) {
  handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) {
    throw std::runtime_error("module: can't be loaded: " + LoaderError() +
                             "; set modulePath (veldrep: --module) to the file libveld_report.so");
  }
  try {
    using orvel::veld_report::CanUnloadModuleFunction;
    using orvel::veld_report::GetObjectFactoryFunction;
    exports_.getObjectFactory =
        reinterpret_cast<GetObjectFactoryFunction*>(Find(orvel::veld_report::getObjectFactoryName));
    exports_.canUnload =
        reinterpret_cast<CanUnloadModuleFunction*>(Find(orvel::veld_report::canUnloadModuleName));
  } catch (...) {
    ::dlclose(handle_);
    throw;
  }
}

LoadedModule::LoadedModule(const ModuleExports& linked) : exports_(linked) {}

LoadedModule::~LoadedModule() { TryUnload(); }

void* LoadedModule::Find(const char* name) const {
  void* const symbol = ::dlsym(handle_, name);
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
  if (handle_) ::dlclose(std::exchange(handle_, nullptr));
  return true;
}

}  // namespace veld_report::host
