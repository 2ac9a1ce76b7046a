// The module that is linked into this program, if there is one.
#pragma once

#include "contract/exports.h"

namespace veld_report::host {

struct ModuleExports {
  orvel::veld_report::GetObjectFactoryFunction* getObjectFactory;
  orvel::veld_report::CanUnloadModuleFunction* canUnload;
};

// Null if the module is a library of its own, to be loaded at run time. The archive of the host kit decides:
// each has one of the two sources of this function.
const ModuleExports* LinkedModule();

}  // namespace veld_report::host
