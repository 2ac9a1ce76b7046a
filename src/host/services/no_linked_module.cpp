#include "host/services/linked_module.h"

namespace veld_report::host {

const ModuleExports* LinkedModule() { return nullptr; }

}  // namespace veld_report::host
