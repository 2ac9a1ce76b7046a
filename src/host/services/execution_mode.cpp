#include "host/services/execution_mode.h"

namespace veld_report::host {

std::uint32_t ExecutionMode::IsBackgroundDisabled() { return BackgroundAllowed() ? 0 : 1; }

}  // namespace veld_report::host
