#include "host/base/write_trace.h"

#include <cstring>

namespace veld_report::host {

void WriteTrace(zel::ITracer* tracer, std::uint32_t level, std::string_view line) noexcept {
  if (!tracer) return;
  try {
    char* buffer = nullptr;
    if (tracer->AcquireBuffer(level, &buffer, line.size()) != zel::sOk || !buffer) return;
    std::memcpy(buffer, line.data(), line.size());
    tracer->CommitBuffer(buffer, line.size());
  } catch (...) {
    // The line is lost; the service goes on.
  }
}

}  // namespace veld_report::host
