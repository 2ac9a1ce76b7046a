#include "host/services/linked_module.h"

extern "C" {
orvel::veld_report::GetObjectFactoryFunction zelGetObjectFactory;
orvel::veld_report::CanUnloadModuleFunction zelCanUnloadModule;
}

namespace veld_report::host {

const ModuleExports* LinkedModule() {
  static constexpr ModuleExports exports{&zelGetObjectFactory, &zelCanUnloadModule};
  return &exports;
}

}  // namespace veld_report::host
