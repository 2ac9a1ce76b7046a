// TraceRecord, the question whether a line is wanted. The answer "no" costs the one call that asks.
#pragma once

#include <cstdint>

#include "contract/tracer.h"
#include "types/ref.h"

namespace zel {

// Levels of the module's lines.
inline constexpr std::uint32_t failureLevel = 300;
inline constexpr std::uint32_t normalLevel = 700;

// Size of the buffer that a line begins with, in bytes.
inline constexpr std::uint64_t initialLineCapacity = 512;

struct TraceRecord {
  Ref<ITracer> tracer;     // set only when the tracer said yes
  char* buffer = nullptr;  // the tracer's; null means that no line is to be written
};

// Asks `tracer`, which may be null, for a line of that level. Exactly 0 is yes. A tracer that says yes and
// gives no buffer gets no line, and no reference on it is kept. In the header, so that a line that isn't
// wanted costs its site the tracer's call and nothing more.
inline void OpenTraceRecord(TraceRecord* record, ITracer* tracer, std::uint32_t level) {
  record->buffer = nullptr;
  if (!tracer) return;
  char* buffer = nullptr;
  if (tracer->AcquireBuffer(level, &buffer, initialLineCapacity) != sOk || !buffer) return;
  record->buffer = buffer;
  record->tracer = Ref<ITracer>(tracer);
}

}  // namespace zel
