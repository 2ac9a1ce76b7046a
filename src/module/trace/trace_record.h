// TraceRecord asks whether a line is wanted. If it isn't, the line costs this one call.
#pragma once

#include <cstdint>

#include "contract/tracer.h"
#include "types/ref.h"

namespace zel {

// Levels of the module's lines.
inline constexpr std::uint32_t failureLevel = 300;
inline constexpr std::uint32_t normalLevel = 700;

// The size of the buffer that a line starts with, in bytes.
inline constexpr std::uint64_t initialLineCapacity = 512;

struct TraceRecord {
  Ref<ITracer> tracer;     // only set if the line is wanted
  char* buffer = nullptr;  // the tracer's; null if no line is wanted
};

// Asks `tracer`, which may be null, for a line of that level. Exactly 0 means yes. If the tracer agrees but
// gives no buffer, there is no line, and no reference to it is kept. In the header, so that an unwanted line
// costs its site nothing but the tracer's call.
inline void OpenTraceRecord(TraceRecord* record, ITracer* tracer, std::uint32_t level) {
  record->buffer = nullptr;
  if (!tracer) return;
  char* buffer = nullptr;
  if (tracer->AcquireBuffer(level, &buffer, initialLineCapacity) != sOk || !buffer) return;
  record->buffer = buffer;
  record->tracer = Ref<ITracer>(tracer);
}

}  // namespace zel
