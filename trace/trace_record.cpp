#include "trace/trace_record.h"

namespace zel {

void OpenTraceRecord(TraceRecord* record, ITracer* tracer, std::uint32_t level) {
  record->buffer = nullptr;
  if (!tracer) return;
  char* buffer = nullptr;
  if (tracer->AcquireBuffer(level, &buffer, initialLineCapacity) != sOk || !buffer) return;
  record->buffer = buffer;
  record->tracer = Ref<ITracer>(tracer);
}

}  // namespace zel
