// ITracer, the host's tracing service. Required when a sender is created.
#pragma once

#include "types/object.h"

namespace zel {

// A line is written to one of the tracer's buffers and returned in one piece. The module owns no buffer.
// Threads: any, also while the sender holds one of its locks.
class ITracer : public IObject {
 public:
  static constexpr InterfaceId iid = 0x6ef3329b;
  // Not a level, but the request to grow a buffer.
  static constexpr std::uint32_t growLevel = 1000;

  // With a level: if a line of this level is wanted, return 0 and store a writable buffer of at least `size`
  // bytes; otherwise return anything else and store nothing. Levels in use: 300 for failures, 700 for the
  // rest. With level 1000: `*buffer` is a buffer of this tracer. Either return 0 and store a buffer of at
  // least `size` bytes with the same content, or return non-zero and leave a pointer that CommitBuffer still
  // accepts.
  virtual ResultCode AcquireBuffer(std::uint32_t level, char** buffer, std::uint64_t size) = 0;
  // Takes the line, exactly `length` bytes without terminator or line end, and takes the buffer back.
  virtual ResultCode CommitBuffer(char* buffer, std::uint64_t length) = 0;

 protected:
  ~ITracer() = default;
};

}  // namespace zel
