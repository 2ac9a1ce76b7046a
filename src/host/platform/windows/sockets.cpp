#include "host/platform/sockets.h"

#include "host/platform/windows/wide.h"

namespace veld_report::host {

// The system has no limit for what waits unsent.
void PrepareSocket(std::intptr_t socket) noexcept {
  SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
}

}  // namespace veld_report::host
