#include "host/platform/process.h"

#include "host/platform/windows/wide.h"

namespace veld_report::host {

// Processes don't fork here.
std::uint64_t CurrentProcess() noexcept { return 1; }

std::uint64_t ProcessId() noexcept { return GetCurrentProcessId(); }

}  // namespace veld_report::host
